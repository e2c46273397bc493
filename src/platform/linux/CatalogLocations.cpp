#include "platform/CatalogLocations.h"

#include <array>

namespace sd::platform {
namespace {

// Where the same tools keep their caches on a freedesktop system: ~/.cache, ~/.config for
// Chromium-based apps, ~/.local/share, and Flatpak's per-app folders.
constexpr std::array locations{
    CatalogLocation{"system_quicklook", "thumbnails_linux", "Thumbnails", "", "~/.cache/thumbnails",
                    ""},
    CatalogLocation{"system_icon_caches", "icon_cache_linux", "Icon cache", "",
                    "~/.cache/icon-cache.kcache", ""},
    CatalogLocation{"system_font_caches", "fontconfig_linux", "Fontconfig cache", "",
                    "~/.cache/fontconfig", ""},
    CatalogLocation{"webkit_caches", "webkitgtk_linux", "WebKitGTK caches", "", "~/.cache",
                    "*/WebKitCache"},
    CatalogLocation{"browser_caches", "chrome_cache_linux", "", "chrome", "~/.cache/google-chrome",
                    ""},
    CatalogLocation{"browser_caches", "chrome_code_linux", "", "chrome",
                    "~/.config/google-chrome/Default/Code Cache", ""},
    CatalogLocation{"browser_caches", "chrome_gpu_linux", "", "chrome",
                    "~/.config/google-chrome/Default/GPUCache", ""},
    CatalogLocation{"browser_caches", "chrome_shader_linux", "", "chrome",
                    "~/.config/google-chrome/ShaderCache", ""},
    CatalogLocation{"browser_caches", "chromium_cache_linux", "", "chromium", "~/.cache/chromium",
                    ""},
    CatalogLocation{"browser_caches", "chromium_code_linux", "", "chromium",
                    "~/.config/chromium/Default/Code Cache", ""},
    CatalogLocation{"browser_caches", "firefox_cache2_linux", "", "firefox",
                    "~/.cache/mozilla/firefox", "*/cache2"},
    CatalogLocation{"browser_caches", "firefox_startup_linux", "", "firefox",
                    "~/.cache/mozilla/firefox", "*/startupCache"},
    CatalogLocation{"browser_caches", "brave_cache_linux", "", "brave", "~/.cache/BraveSoftware",
                    ""},
    CatalogLocation{"browser_caches", "brave_code_linux", "", "brave",
                    "~/.config/BraveSoftware/Brave-Browser/Default/Code Cache", ""},
    CatalogLocation{"browser_caches", "edge_cache_linux", "", "edge", "~/.cache/microsoft-edge",
                    ""},
    CatalogLocation{"browser_caches", "edge_code_linux", "", "edge",
                    "~/.config/microsoft-edge/Default/Code Cache", ""},
    CatalogLocation{"browser_caches", "opera_cache_linux", "", "opera", "~/.cache/opera", ""},
    CatalogLocation{"messaging_caches", "slack_cache_linux", "", "slack", "~/.config/Slack/Cache",
                    ""},
    CatalogLocation{"messaging_caches", "slack_code_linux", "", "slack",
                    "~/.config/Slack/Code Cache", ""},
    CatalogLocation{"messaging_caches", "slack_gpu_linux", "", "slack", "~/.config/Slack/GPUCache",
                    ""},
    CatalogLocation{"messaging_caches", "discord_cache_linux", "", "discord",
                    "~/.config/discord/Cache", ""},
    CatalogLocation{"messaging_caches", "discord_code_linux", "", "discord",
                    "~/.config/discord/Code Cache", ""},
    CatalogLocation{"messaging_caches", "discord_gpu_linux", "", "discord",
                    "~/.config/discord/GPUCache", ""},
    CatalogLocation{"messaging_caches", "teams_cache_linux", "", "teams",
                    "~/.config/Microsoft/Microsoft Teams/Cache", ""},
    CatalogLocation{"messaging_caches", "signal_cache_linux", "", "signal",
                    "~/.config/Signal/Cache", ""},
    CatalogLocation{"messaging_caches", "signal_code_linux", "", "signal",
                    "~/.config/Signal/Code Cache", ""},
    CatalogLocation{"messaging_caches", "telegram_cache_linux", "", "telegram",
                    "~/.local/share/TelegramDesktop/tdata/user_data/cache", ""},
    CatalogLocation{"music_streaming", "spotify_cache_linux", "", "spotify", "~/.cache/spotify",
                    ""},
    CatalogLocation{"gaming_caches", "steam_appcache_linux", "", "steam",
                    "~/.local/share/Steam/appcache", ""},
    CatalogLocation{"gaming_caches", "steam_depotcache_linux", "", "steam",
                    "~/.local/share/Steam/depotcache", ""},
    CatalogLocation{"gaming_caches", "steam_shadercache_linux", "", "steam",
                    "~/.local/share/Steam/steamapps/shadercache", ""},
    CatalogLocation{"ide_caches", "vscode_cache_linux", "", "vscode", "~/.config/Code/Cache", ""},
    CatalogLocation{"ide_caches", "vscode_cached_data_linux", "", "vscode",
                    "~/.config/Code/CachedData", ""},
    CatalogLocation{"ide_caches", "vscode_code_cache_linux", "", "vscode",
                    "~/.config/Code/Code Cache", ""},
    CatalogLocation{"ide_caches", "vscode_gpu_cache_linux", "", "vscode", "~/.config/Code/GPUCache",
                    ""},
    CatalogLocation{"ide_caches", "vscode_insiders_cached_data_linux", "", "vscode_insiders",
                    "~/.config/Code - Insiders/CachedData", ""},
    CatalogLocation{"ide_caches", "vscodium_cached_data_linux", "", "vscodium",
                    "~/.config/VSCodium/CachedData", ""},
    CatalogLocation{"ide_caches", "cursor_cached_data_linux", "", "cursor",
                    "~/.config/Cursor/CachedData", ""},
    CatalogLocation{"ide_caches", "windsurf_cached_data_linux", "", "windsurf",
                    "~/.config/Windsurf/CachedData", ""},
    CatalogLocation{"ide_caches", "sublime_cache_linux", "", "sublime", "~/.cache/sublime-text",
                    ""},
    CatalogLocation{"ide_caches", "jetbrains_cache_linux", "JetBrains IDEs", "",
                    "~/.cache/JetBrains", ""},
    CatalogLocation{"productivity_caches", "notion_cache_linux", "", "notion",
                    "~/.config/Notion/Cache", ""},
    CatalogLocation{"productivity_caches", "obsidian_cache_linux", "", "obsidian",
                    "~/.config/obsidian/Cache", ""},
    CatalogLocation{"productivity_caches", "flatpak_app_caches_linux", "Flatpak app caches", "",
                    "~/.var/app", "*/cache"},
    CatalogLocation{"local_llm_models", "lm_studio_models_linux", "", "lm_studio",
                    "~/.lmstudio/models", ""},
    CatalogLocation{"javascript_tools", "playwright_chromium_linux", "Playwright Chromium", "",
                    "~/.cache/ms-playwright", "chromium-[0-9]*"},
    CatalogLocation{"javascript_tools", "playwright_headless_shell_linux",
                    "Playwright headless shell", "", "~/.cache/ms-playwright",
                    "chromium_headless_shell-[0-9]*"},
    CatalogLocation{"javascript_tools", "playwright_firefox_linux", "Playwright Firefox", "",
                    "~/.cache/ms-playwright", "firefox-[0-9]*"},
    CatalogLocation{"javascript_tools", "playwright_webkit_linux", "Playwright WebKit", "",
                    "~/.cache/ms-playwright", "webkit-[0-9]*"},
    CatalogLocation{"javascript_tools", "playwright_ffmpeg_linux", "Playwright FFmpeg", "",
                    "~/.cache/ms-playwright", "ffmpeg-[0-9]*"},
    CatalogLocation{"other_dev_tools", "homebrew_cache_linux", "Homebrew", "", "~/.cache/Homebrew",
                    ""},
    CatalogLocation{"other_dev_tools", "composer_cache_linux", "Composer (cache)", "",
                    "~/.cache/composer", ""},
};

} // namespace

bool templateExistsHere(std::string_view pathTemplate) {
    return pathTemplate != "~/Library" && !pathTemplate.starts_with("~/Library/");
}

std::span<const TargetWording> targetWordings() {
    static constexpr std::array wordings{
        TargetWording{"system_quicklook", "Thumbnails",
                      "Preview thumbnails of your files (made again when needed)"},
        TargetWording{"system_icon_caches", "Icon caches",
                      "App icons (may need a new login to refresh)"},
        TargetWording{"system_font_caches", "Font caches",
                      "Fontconfig's font lists (made again when needed)"},
    };
    return wordings;
}

std::span<const CatalogLocation> extraCatalogLocations() {
    return locations;
}

} // namespace sd::platform
