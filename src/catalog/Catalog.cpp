#include "catalog/Catalog.h"

#include "platform/CatalogLocations.h"

#include <algorithm>

namespace sd {
namespace {

PathSpec path(std::string id, std::optional<std::string> name, std::optional<std::string> app,
              std::string pathTemplate, std::optional<std::string> pattern = std::nullopt) {
    PathSpec spec;
    spec.id = std::move(id);
    spec.name = std::move(name);
    spec.app = std::move(app);
    spec.pathTemplate = std::move(pathTemplate);
    spec.pattern = std::move(pattern);
    return spec;
}

using Apps = std::vector<AppGroup>;
constexpr auto none = std::nullopt;

Target target(std::string id, std::string title, std::string subtitle, RiskLevel risk,
              std::optional<RiskTier> tier, Apps apps, std::vector<PathSpec> paths) {
    Target t;
    t.id = std::move(id);
    t.title = std::move(title);
    t.subtitle = std::move(subtitle);
    t.risk = risk;
    t.riskTier = tier;
    t.apps = std::move(apps);
    t.paths = std::move(paths);
    return t;
}

void explain(Target& t, std::string narration, std::string strategy) {
    t.narration = std::move(narration);
    t.reclaimStrategy = std::move(strategy);
}

const std::string appSupport = "~/Library/Application Support/";
const std::string caches = "~/Library/Caches/";

std::vector<PathSpec> electronCaches(const std::string& prefix, const std::string& app,
                                     const std::string& base) {
    return {path(prefix + "_cache", none, app, caches + base),
            path(prefix + "_support", none, app, appSupport + base + "/Cache"),
            path(prefix + "_code", none, app, appSupport + base + "/Code Cache")};
}

std::vector<PathSpec> editorCaches(const std::string& prefix, const std::string& app,
                                   const std::string& folder) {
    return {path(prefix + "_cache", none, app, appSupport + folder + "/Cache"),
            path(prefix + "_cached_data", none, app, appSupport + folder + "/CachedData"),
            path(prefix + "_code_cache", none, app, appSupport + folder + "/Code Cache"),
            path(prefix + "_gpu_cache", none, app, appSupport + folder + "/GPUCache")};
}

template <typename... Lists> std::vector<PathSpec> join(Lists&&... lists) {
    std::vector<PathSpec> out;
    (out.insert(out.end(), lists.begin(), lists.end()), ...);
    return out;
}

std::vector<Target> allTargets() {
    using enum RiskLevel;
    using enum RiskTier;
    std::vector<Target> c;

    c.push_back(target("system_quicklook", "Quick Look thumbnails",
                       "Preview thumbnails (regenerate on demand)", safe, none, {},
                       {path("quicklook_cache", "Quick Look Cache", none,
                             caches + "com.apple.QuickLook.thumbnailcache")}));
    c.push_back(
        target("system_icon_caches", "Icon caches",
               "App icons and dock tiles (may require restart to refresh)", disruptive, none, {},
               {path("iconservices", "Icon Services", none, caches + "com.apple.iconservices"),
                path("dock", "Dock Icons", none, caches + "com.apple.dock")}));
    c.push_back(
        target("system_font_caches", "Font caches",
               "Font registration caches (may require logout/restart)", disruptive, none, {},
               {path("font_registry", "Font Registry", none, caches + "com.apple.FontRegistry"),
                path("ats_font_cache", "ATS Font Cache", none, caches + "com.apple.ATS")}));
    c.push_back(target(
        "system_siri_dictation", "Siri & Dictation",
        "Voice recognition caches (Siri/Dictation may re-download data)", disruptive, none, {},
        {path("siri", "Siri", none, caches + "com.apple.Siri"),
         path("siri_tts", "Siri TTS Training", none, caches + "com.apple.SiriTTSTraining"),
         path("assistant", "Assistant", none, caches + "com.apple.assistant"),
         path("assistantd", "Assistant Daemon", none, caches + "com.apple.assistantd"),
         path("speech_recognition", "Speech Recognition", none,
              caches + "com.apple.SpeechRecognitionCore")}));
    c.push_back(
        target("apple_services", "Apple service caches", "Help, News, Tips, Weather, Stocks", safe,
               none, {},
               {path("helpd", "Help", none, caches + "com.apple.helpd"),
                path("tipsd", "Tips", none, caches + "com.apple.tipsd"),
                path("news", "News", none, caches + "com.apple.news"),
                path("stocks", "Stocks", none, caches + "com.apple.stocks"),
                path("weather", "Weather", none, caches + "com.apple.weather"),
                path("game_center", "Game Center", none, caches + "com.apple.GameCenter")}));
    c.push_back(
        target("webkit_caches", "WebKit process caches",
               "GPU and networking caches (restart apps if needed)", disruptive, none, {},
               {path("webkit_gpu", "WebKit GPU", none, caches + "com.apple.WebKit.GPUProcess"),
                path("webkit_networking", "WebKit Networking", none,
                     caches + "com.apple.WebKit.Networking"),
                path("webkit_webcontent", "WebKit Web Content", none,
                     caches + "com.apple.WebKit.WebContent")}));
    c.push_back(target("app_logs", "Application logs",
                       "Log files (keeps crash reports; may remove useful diagnostics)", disruptive,
                       none, {}, {path("logs", "Application Logs", none, "~/Library/Logs")}));

    const std::string chrome = appSupport + "Google/Chrome";
    c.push_back(target(
        "browser_caches", "Browser caches",
        "Safari, Chrome channels, Chromium, Firefox, Brave, Edge, Arc, Opera", safe,
        rebuildsInstantly,
        {{"safari", "Safari"},
         {"chrome", "Chrome"},
         {"chromium", "Chromium"},
         {"firefox", "Firefox"},
         {"brave", "Brave"},
         {"edge", "Edge"},
         {"arc", "Arc"},
         {"opera", "Opera"}},
        {path("safari_cache", none, "safari", caches + "com.apple.Safari"),
         path("safari_safebrowsing", none, "safari", caches + "com.apple.Safari.SafeBrowsing"),
         path("chrome_cache", none, "chrome", caches + "Google/Chrome"),
         path("chrome_default", none, "chrome", chrome + "/Default/Cache"),
         path("chrome_code", none, "chrome", chrome + "/Default/Code Cache"),
         path("chrome_gpu", none, "chrome", chrome + "/Default/GPUCache"),
         path("chrome_shader", none, "chrome", chrome + "/ShaderCache"),
         path("chrome_beta_cache", "Chrome Beta", "chrome", caches + "Google/Chrome Beta"),
         path("chrome_dev_cache", "Chrome Dev", "chrome", caches + "Google/Chrome Dev"),
         path("chrome_canary_cache", "Chrome Canary", "chrome", caches + "Google/Chrome Canary"),
         path("chrome_testing_cache", "Chrome for Testing", "chrome",
              caches + "Google/Chrome for Testing"),
         path("chromium_cache", none, "chromium", caches + "Chromium"),
         path("firefox_cache", none, "firefox", caches + "Firefox"),
         path("firefox_profile_cache", none, "firefox", appSupport + "Firefox/Profiles",
              "*/cache2"),
         path("firefox_startup", none, "firefox", appSupport + "Firefox/Profiles",
              "*/startupCache"),
         path("brave_cache", none, "brave", caches + "BraveSoftware"),
         path("brave_default", none, "brave",
              appSupport + "BraveSoftware/Brave-Browser/Default/Cache"),
         path("brave_code", none, "brave",
              appSupport + "BraveSoftware/Brave-Browser/Default/Code Cache"),
         path("edge_cache", none, "edge", caches + "Microsoft Edge"),
         path("edge_default", none, "edge", appSupport + "Microsoft Edge/Default/Cache"),
         path("edge_code", none, "edge", appSupport + "Microsoft Edge/Default/Code Cache"),
         path("arc_cache", none, "arc", caches + "company.thebrowser.Browser"),
         path("arc_default", none, "arc", appSupport + "Arc/User Data/Default/Cache"),
         path("arc_code", none, "arc", appSupport + "Arc/User Data/Default/Code Cache"),
         path("opera_cache", none, "opera", caches + "com.operasoftware.Opera"),
         path("opera_default", none, "opera", appSupport + "com.operasoftware.Opera/Cache")}));
    explain(c.back(), "Your browsers' caches — they rebuild automatically as you browse.",
            "Clear browser caches");

    const std::string slackContainer =
        "~/Library/Containers/com.tinyspeck.slackmacgap/Data/Library/";
    const std::string discordContainer = "~/Library/Containers/com.hnc.Discord/Data/Library/";
    const std::string groupContainers = "~/Library/Group Containers";
    c.push_back(target(
        "messaging_caches", "Messaging app caches",
        "Slack, Discord, Teams, Telegram, Signal, WhatsApp, Zoom; logs may be lost", disruptive,
        largeRedownload,
        {{"slack", "Slack"},
         {"discord", "Discord"},
         {"teams", "Teams"},
         {"telegram", "Telegram"},
         {"signal", "Signal"},
         {"whatsapp", "WhatsApp"},
         {"zoom", "Zoom"}},
        join(electronCaches("slack", "slack", "Slack"),
             std::vector<PathSpec>{
                 path("slack_container_caches", none, "slack", slackContainer + "Caches"),
                 path("slack_container_cache", none, "slack",
                      slackContainer + "Application Support/Slack/Cache"),
                 path("slack_container_code", none, "slack",
                      slackContainer + "Application Support/Slack/Code Cache"),
                 path("slack_container_gpu", none, "slack",
                      slackContainer + "Application Support/Slack/GPUCache")},
             electronCaches("discord", "discord", "discord"),
             std::vector<PathSpec>{
                 path("discord_container_cache", none, "discord",
                      discordContainer + "Application Support/discord/Cache"),
                 path("discord_container_code", none, "discord",
                      discordContainer + "Application Support/discord/Code Cache"),
                 path("discord_container_gpu", none, "discord",
                      discordContainer + "Application Support/discord/GPUCache"),
                 path("teams_cache", none, "teams", caches + "com.microsoft.teams2"),
                 path("teams_support", none, "teams", appSupport + "Microsoft/Teams/Cache"),
                 path("teams_group_container", none, "teams", groupContainers,
                      "*.com.microsoft.teams/Library/Caches"),
                 path("teams_container", none, "teams",
                      "~/Library/Containers/com.microsoft.teams2/Data/Library/Caches"),
                 path("telegram_cache", none, "telegram", caches + "ru.keepcoder.Telegram"),
                 path("telegram_animations", none, "telegram", groupContainers,
                      "*.ru.keepcoder.Telegram/appstore/trlottie-animations"),
                 path("telegram_wallpapers", none, "telegram", groupContainers,
                      "*.ru.keepcoder.Telegram/appstore/Wallpapers"),
                 path("telegram_logs", none, "telegram", groupContainers,
                      "*.ru.keepcoder.Telegram/appstore/logs"),
                 path("telegram_container_tmp", none, "telegram",
                      "~/Library/Containers/ru.keepcoder.Telegram/Data/tmp"),
                 path("signal_cache", none, "signal", appSupport + "Signal/Cache"),
                 path("signal_code", none, "signal", appSupport + "Signal/Code Cache"),
                 path("signal_gpu", none, "signal", appSupport + "Signal/GPUCache"),
                 path("signal_desktop", none, "signal",
                      caches + "org.whispersystems.signal-desktop"),
                 path("whatsapp_group", none, "whatsapp",
                      groupContainers + "/group.net.whatsapp.WhatsApp.shared/Library/Caches"),
                 path("whatsapp_cache", none, "whatsapp", caches + "net.whatsapp.WhatsApp"),
                 path("whatsapp_container", none, "whatsapp",
                      "~/Library/Containers/net.whatsapp.WhatsApp/Data/Library/Caches"),
                 path("zoom_cache", none, "zoom", caches + "us.zoom.xos"),
                 path("zoom_group_container", none, "zoom", groupContainers,
                      "*.ZoomClient3rd/Library/Caches")})));
    explain(c.back(), "Cached images and files from chat apps — they re-download when needed.",
            "Clear messaging caches");

    c.push_back(
        target("music_streaming", "Music & streaming caches",
               "Spotify, Netflix, Apple TV+ (offline content will need re-download)", disruptive,
               none, {{"spotify", "Spotify"}, {"netflix", "Netflix"}, {"apple_tv", "Apple TV+"}},
               {path("spotify_cache", none, "spotify", caches + "com.spotify.client"),
                path("spotify_persistent", none, "spotify", appSupport + "Spotify/PersistentCache"),
                path("netflix_container", none, "netflix",
                     "~/Library/Containers/com.netflix.Netflix/Data/Library/Caches"),
                path("apple_tv_container", none, "apple_tv",
                     "~/Library/Containers/com.apple.TV/Data/Library/Caches")}));
    c.push_back(
        target("gaming_caches", "Gaming caches", "Steam & Epic Games shader/download cache", safe,
               largeRedownload, {{"steam", "Steam"}, {"epic", "Epic Games"}},
               {path("steam_appcache", none, "steam", appSupport + "Steam/appcache"),
                path("steam_depotcache", none, "steam", appSupport + "Steam/depotcache"),
                path("epic_cache", none, "epic", caches + "com.epicgames.EpicGamesLauncher")}));
    explain(c.back(), "Game shader and asset caches — they rebuild the next time you play.",
            "Clear game caches");

    c.push_back(target(
        "ide_caches", "Code editor caches",
        "VS Code, VS Code Insiders, VSCodium, Cursor, Windsurf, Zed, Sublime", safe,
        rebuildsInstantly,
        {{"vscode", "VS Code"},
         {"vscode_insiders", "VS Code Insiders"},
         {"vscodium", "VSCodium"},
         {"cursor", "Cursor"},
         {"windsurf", "Windsurf"},
         {"zed", "Zed"},
         {"sublime", "Sublime Text"}},
        join(editorCaches("vscode", "vscode", "Code"),
             editorCaches("vscode_insiders", "vscode_insiders", "Code - Insiders"),
             editorCaches("vscodium", "vscodium", "VSCodium"),
             editorCaches("cursor", "cursor", "Cursor"),
             editorCaches("windsurf", "windsurf", "Windsurf"),
             std::vector<PathSpec>{
                 path("vscode_library_cache", none, "vscode", caches + "Code"),
                 path("vscode_shipit_cache", none, "vscode", caches + "com.microsoft.VSCode"),
                 path("cursor_library_cache", none, "cursor", caches + "Cursor"),
                 path("zed_cache", none, "zed", "~/.cache/zed"),
                 path("sublime4_cache", none, "sublime", caches + "com.sublimetext.4"),
                 path("sublime3_cache", none, "sublime", caches + "com.sublimetext.3")})));
    explain(c.back(), "Code-editor caches and indexes — rebuilt automatically on next launch.",
            "Clear editor caches");

    c.push_back(
        target("productivity_caches", "Productivity app caches", "Notion, Figma, Obsidian", safe,
               none, {{"notion", "Notion"}, {"figma", "Figma"}, {"obsidian", "Obsidian"}},
               {path("notion_cache", none, "notion", caches + "notion.id"),
                path("notion_support", none, "notion", appSupport + "Notion/Cache"),
                path("figma_cache", none, "figma", caches + "com.figma.Desktop"),
                path("figma_support", none, "figma", appSupport + "Figma/Cache"),
                path("obsidian_cache", none, "obsidian", caches + "md.obsidian"),
                path("obsidian_support", none, "obsidian", appSupport + "obsidian/Cache")}));
    c.push_back(
        target("cloud_storage_caches", "Cloud storage caches",
               "Dropbox, Google Drive, OneDrive sync caches", safe, none,
               {{"dropbox", "Dropbox"}, {"google_drive", "Google Drive"}, {"onedrive", "OneDrive"}},
               {path("dropbox_cache", none, "dropbox", caches + "com.getdropbox.dropbox"),
                path("dropbox_home_cache", none, "dropbox", "~/.dropbox/cache"),
                path("google_drive_cache", none, "google_drive", caches + "com.google.drivefs"),
                path("onedrive_cache", none, "onedrive", caches + "com.microsoft.OneDrive")}));
    c.push_back(
        target("local_llm_models", "Local LLM models",
               "Ollama & LM Studio models (models you imported yourself cannot be downloaded "
               "again)",
               disruptive, largeRedownload, {{"ollama", "Ollama"}, {"lm_studio", "LM Studio"}},
               {path("ollama_models", none, "ollama", "~/.ollama/models"),
                path("lm_studio_models", none, "lm_studio", "~/.cache/lm-studio/models")}));
    explain(
        c.back(),
        "AI models you downloaded in Ollama or LM Studio — you can download them again, but that "
        "takes time and bandwidth; models you imported yourself cannot be.",
        "Remove unused models (ollama rm; LM Studio's My Models)");
    c.push_back(
        target("ml_framework_caches", "ML framework caches",
               "Hugging Face, PyTorch, Transformers, Whisper", disruptive, largeRedownload,
               {{"huggingface", "Hugging Face"},
                {"pytorch", "PyTorch"},
                {"transformers", "Transformers"},
                {"whisper", "Whisper"}},
               {path("huggingface_hub_cache", none, "huggingface", "~/.cache/huggingface/hub"),
                path("huggingface_xet_cache", none, "huggingface", "~/.cache/huggingface/xet"),
                path("torch_cache", none, "pytorch", "~/.cache/torch"),
                path("transformers_cache", none, "transformers", "~/.cache/transformers"),
                path("whisper_cache", none, "whisper", "~/.cache/whisper")}));
    explain(c.back(),
            "Models and datasets downloaded by Hugging Face, PyTorch and Whisper — they can be "
            "downloaded again, but that takes time and bandwidth, and offline use stops until they "
            "are.",
            "Remove downloaded model caches; they re-download on next use");
    c.push_back(target("python_tools", "Python package caches", "pip, Ruff", disruptive,
                       largeRedownload, {},
                       {path("pip_library", "pip (Library)", none, caches + "pip"),
                        path("pip_cache", "pip (cache)", none, "~/.cache/pip"),
                        path("ruff_cache", "Ruff", none, "~/.cache/ruff")}));
    explain(
        c.back(),
        "pip's download and wheel cache and Ruff's lint cache — your environments keep working; "
        "packages download again on the next install.",
        "pip cache purge; ruff clean");
    const std::string playwright = caches + "ms-playwright";
    c.push_back(target(
        "javascript_tools", "JavaScript package caches",
        "npm, Yarn, Bun, Deno, Playwright browser builds", disruptive, largeRedownload, {},
        {path("npm_cacache", "npm (cacache)", none, "~/.npm/_cacache"),
         path("npm_library", "npm (Library)", none, caches + "npm"),
         path("yarn_library", "Yarn (Library)", none, caches + "Yarn"),
         path("yarn_cache", "Yarn (cache)", none, "~/.cache/yarn"),
         path("bun_cache", "Bun", none, "~/.bun/install/cache"),
         path("deno_library", "Deno (Library)", none, caches + "deno"),
         path("deno_cache", "Deno (cache)", none, "~/.cache/deno"),
         path("playwright_chromium", "Playwright Chromium", none, playwright, "chromium-[0-9]*"),
         path("playwright_headless_shell", "Playwright headless shell", none, playwright,
              "chromium_headless_shell-[0-9]*"),
         path("playwright_firefox", "Playwright Firefox", none, playwright, "firefox-[0-9]*"),
         path("playwright_webkit", "Playwright WebKit", none, playwright, "webkit-[0-9]*"),
         path("playwright_ffmpeg", "Playwright FFmpeg", none, playwright, "ffmpeg-[0-9]*")}));
    explain(c.back(),
            "Packages and test browsers that npm, Yarn, Bun, Deno and Playwright downloaded — they "
            "download again on your next install (npx playwright install for the browsers).",
            "npm cache clean --force; npx playwright uninstall --all");
    c.push_back(target(
        "xcode_ios", "Xcode & iOS development",
        "DerivedData, Device Support, Swift PM, CocoaPods, Simulator", disruptive, largeRedownload,
        {},
        {path("derived_data", "DerivedData", none, "~/Library/Developer/Xcode/DerivedData"),
         path("xcode_products", "Xcode Products", none, "~/Library/Developer/Xcode/Products"),
         path("ios_device_support", "iOS Device Support", none,
              "~/Library/Developer/Xcode/iOS DeviceSupport"),
         path("watchos_device_support", "watchOS Device Support", none,
              "~/Library/Developer/Xcode/watchOS DeviceSupport"),
         path("swift_pm", "Swift Package Manager", none, caches + "org.swift.swiftpm"),
         path("cocoapods", "CocoaPods", none, caches + "CocoaPods"),
         path("simulator_caches", "Simulator Caches", none,
              "~/Library/Developer/CoreSimulator/Caches")}));
    explain(
        c.back(),
        "Xcode build data (DerivedData, including its compilation cache), device support files, "
        "package caches and simulator caches — large, and rebuilt or re-downloaded when needed.",
        "Delete DerivedData; remove unavailable simulators with simctl");
    c.push_back(target(
        "java_android", "Java & Android caches", "Gradle caches and wrapper downloads, Android SDK",
        disruptive, largeRedownload, {},
        {path("gradle_caches", "Gradle Caches", none, "~/.gradle/caches"),
         path("gradle_wrapper", "Gradle Wrapper Distributions", none, "~/.gradle/wrapper/dists"),
         path("android_cache", "Android SDK", none, "~/.android/cache")}));
    explain(c.back(),
            "Gradle caches, downloaded Gradle versions and Android build caches — re-downloaded on "
            "your next build.",
            "Stop Gradle daemons (gradle --stop), then clear Gradle and Android caches");
    c.push_back(target(
        "rust_go", "Rust & Go caches", "Cargo registry, Go build cache", disruptive,
        largeRedownload, {},
        {path("cargo_registry_cache", "Cargo Registry Cache", none, "~/.cargo/registry/cache"),
         path("cargo_registry_src", "Cargo Registry Source", none, "~/.cargo/registry/src"),
         path("cargo_git_checkouts", "Cargo Git Checkouts", none, "~/.cargo/git/checkouts"),
         path("go_build_library", "Go Build (Library)", none, caches + "go-build"),
         path("go_build_cache", "Go Build (cache)", none, "~/.cache/go-build")}));
    explain(c.back(),
            "Crates Cargo downloaded and Go's build cache — re-downloaded or rebuilt on your next "
            "compile.",
            "Clear Cargo registry downloads; go clean -cache");
    c.push_back(target("other_dev_tools", "Other dev tool caches",
                       "Homebrew, Docker app cache, Composer, Gem, Flutter", disruptive,
                       largeRedownload, {},
                       {path("homebrew_cache", "Homebrew", none, caches + "Homebrew"),
                        path("docker_cache", "Docker", none, caches + "com.docker.docker"),
                        path("composer_home", "Composer (home)", none, "~/.composer/cache"),
                        path("composer_library", "Composer (Library)", none, caches + "composer"),
                        path("gem_cache", "Ruby Gems", none, "~/.gem/cache"),
                        path("flutter_cache", "Flutter", none, caches + "flutter")}));
    explain(c.back(),
            "Downloads kept by Homebrew, Composer, RubyGems and Flutter, plus the Docker app's own "
            "cache (not your images or containers) — fetched again when a tool next needs them.",
            "brew cleanup; clear tool download caches");
    const std::string adobeCommon = appSupport + "Adobe/Common/";
    c.push_back(
        target("adobe_creative_cloud", "Adobe Creative Cloud caches",
               "Photoshop, Premiere Pro, After Effects, Illustrator", disruptive, none,
               {{"photoshop", "Photoshop"},
                {"premiere", "Premiere Pro"},
                {"after_effects", "After Effects"},
                {"illustrator", "Illustrator"},
                {"lightroom", "Lightroom"}},
               {path("adobe_cache", "Adobe Caches", none, caches + "Adobe"),
                path("adobe_media_cache_files", "Media Cache Files", "premiere",
                     adobeCommon + "Media Cache Files"),
                path("adobe_media_cache", "Media Cache", "premiere", adobeCommon + "Media Cache"),
                path("adobe_peak_files", "Peak Files", "premiere", adobeCommon + "Peak Files"),
                path("adobe_crlogs", "CR Logs", none, appSupport + "Adobe/CRLogs")}));

    // Each platform adds where the same tools keep their data there.
    for (const platform::CatalogLocation& extra : platform::extraCatalogLocations()) {
        auto owner = std::find_if(c.begin(), c.end(),
                                  [&](const Target& t) { return t.id == extra.targetID; });
        if (owner == c.end()) {
            continue;
        }
        owner->paths.push_back(path(std::string(extra.id),
                                    extra.name.empty() ? std::optional<std::string>()
                                                       : std::optional<std::string>(extra.name),
                                    extra.app.empty() ? std::optional<std::string>()
                                                      : std::optional<std::string>(extra.app),
                                    std::string(extra.pathTemplate),
                                    extra.pattern.empty()
                                        ? std::optional<std::string>()
                                        : std::optional<std::string>(extra.pattern)));
    }
    return c;
}

} // namespace

std::string_view riskLevelName(RiskLevel risk) {
    return risk == RiskLevel::safe ? "safe" : "disruptive";
}

std::string_view riskTierName(RiskTier tier) {
    switch (tier) {
    case RiskTier::rebuildsInstantly:
        return "rebuildsInstantly";
    case RiskTier::largeRedownload:
        return "largeRedownload";
    case RiskTier::irreplaceable:
        return "irreplaceable";
    }
    return "rebuildsInstantly";
}

std::vector<Target> buildCatalog(DistributionMode mode) {
    std::vector<Target> catalog = allTargets();
    bool direct = mode == DistributionMode::direct;
    for (Target& t : catalog) {
        t.requiresPermission = !direct;
    }
    if (!direct) {
        std::erase_if(catalog, [](const Target& t) {
            return t.id.starts_with("system_") || t.id == "apple_services" ||
                   t.id == "webkit_caches";
        });
    }
    return catalog;
}

std::vector<Target> platformCatalog(DistributionMode mode) {
    std::vector<Target> catalog = buildCatalog(mode);
    for (Target& t : catalog) {
        std::erase_if(t.paths, [](const PathSpec& p) {
            return !platform::templateExistsHere(p.pathTemplate);
        });
        std::erase_if(t.apps, [&](const AppGroup& app) {
            bool gone = std::none_of(t.paths.begin(), t.paths.end(),
                                     [&](const PathSpec& p) { return p.app == app.id; });
            if (gone) {
                // Subtitles name their apps in a list; an app that has no place here leaves it.
                for (const std::string& cut : {app.name + ", ", ", " + app.name}) {
                    if (size_t at = t.subtitle.find(cut); at != std::string::npos) {
                        t.subtitle.erase(at, cut.size());
                        break;
                    }
                }
            }
            return gone;
        });
        for (const platform::TargetWording& wording : platform::targetWordings()) {
            if (wording.targetID == t.id) {
                t.title = wording.title;
                t.subtitle = wording.subtitle;
            }
        }
    }
    std::erase_if(catalog, [](const Target& t) { return t.paths.empty(); });
    return catalog;
}

const Target* findTarget(const std::vector<Target>& catalog, std::string_view id) {
    for (const Target& t : catalog) {
        if (t.id == id) {
            return &t;
        }
    }
    return nullptr;
}

std::string displayName(const Target& target, const PathSpec& path) {
    if (path.name) {
        return *path.name;
    }
    if (path.app) {
        for (const AppGroup& app : target.apps) {
            if (app.id == *path.app) {
                return app.name;
            }
        }
    }
    std::string shown = path.pathTemplate;
    if (path.pattern) {
        shown += "/" + *path.pattern;
    }
    return shown;
}

} // namespace sd
