#include "catalog/CleaningService.h"

#include "base/CleanerError.h"
#include "base/ParallelFor.h"
#include "base/Saturating.h"
#include "base/TestHooks.h"
#include "catalog/InclusionPreferences.h"
#include "core/CoreFileSystem.h"
#include "core/PathRules.h"
#include "core/Walk.h"

#include <algorithm>
#include <chrono>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unordered_set>

namespace sd {
namespace {

using Clock = std::chrono::steady_clock;

std::uint64_t millisecondsSince(Clock::time_point start) {
    auto elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    return elapsed < 0 ? 0 : static_cast<std::uint64_t>(elapsed);
}

bool globMatches(const std::string& pattern, const std::string& text) {
    return ::fnmatch(pattern.c_str(), text.c_str(), FNM_PERIOD) == 0;
}

// True when `relative` (a path below a candidate) or one of its ancestors is excluded.
bool isExcluded(const std::vector<std::string>& excludes, const std::string& relative) {
    std::string prefix;
    for (std::string_view component : splitComponents(relative)) {
        prefix += prefix.empty() ? std::string(component) : "/" + std::string(component);
        for (const std::string& exclude : excludes) {
            if (globMatches(exclude, prefix)) {
                return true;
            }
        }
    }
    return false;
}

// True when something an exclusion names may lie below `relative`, so the folder must be opened
// rather than moved whole. A pattern component that could match "/" keeps the answer yes.
bool mayContainExclusion(const std::vector<std::string>& excludes, const std::string& relative) {
    std::vector<std::string_view> here = splitComponents(relative);
    for (const std::string& exclude : excludes) {
        std::vector<std::string_view> wanted = splitComponents(exclude);
        if (wanted.size() <= here.size()) {
            continue;
        }
        bool matches = true;
        for (size_t i = 0; i < here.size() && matches; ++i) {
            std::string part(wanted[i]);
            if (part.find('*') != std::string::npos) {
                break; // may span folders: descend to be safe
            }
            matches = globMatches(part, std::string(here[i]));
        }
        if (matches) {
            return true;
        }
    }
    return false;
}

std::optional<CleanPath> measureItem(const std::string& path, const struct stat& st,
                                     const std::optional<std::string>& targetID,
                                     const std::stop_token& stop, std::string& problem) {
    std::vector<std::string> warnings;
    FootprintTally tally;
    Footprint footprint = measureFootprint(path, EntryIdentity::of(st), warnings, tally, stop);
    if (footprint.vanished) {
        return std::nullopt;
    }
    for (const std::string& warning : warnings) {
        if (warning.starts_with("Skipped mounted filesystem")) {
            problem = "Kept in place: it is on another volume";
            return std::nullopt;
        }
        problem = "Kept in place: it contains protected or unreadable entries";
        return std::nullopt;
    }
    return CleanPath{path,
                     footprint.allocatedBytes,
                     tally.freeable.freeableBytes(),
                     static_cast<std::uint64_t>(st.st_dev),
                     static_cast<std::uint64_t>(st.st_ino),
                     targetID,
                     static_cast<std::uint32_t>(st.st_mode & S_IFMT)};
}

// When the (possibly patterned) `location` lies at or below `base`, what remains of it below
// `base`: "" for the base itself. Each leading component of the location is matched against the
// base's component as a pattern.
std::optional<std::string> globRemainder(const std::string& location, const std::string& base) {
    std::vector<std::string_view> wanted = splitComponents(location);
    std::vector<std::string_view> here = splitComponents(base);
    if (wanted.size() < here.size()) {
        return std::nullopt;
    }
    for (size_t i = 0; i < here.size(); ++i) {
        if (!globMatches(std::string(wanted[i]), std::string(here[i]))) {
            return std::nullopt;
        }
    }
    std::string rest;
    for (size_t i = here.size(); i < wanted.size(); ++i) {
        rest += (rest.empty() ? "" : "/") + std::string(wanted[i]);
    }
    return rest;
}

} // namespace

// The running operation: it holds the service's operation lock, and its stop follows both the
// caller's token and the service's cancel().
class CleaningService::Operation {
public:
    Operation(CleaningService& service, const std::stop_token& outer)
        : service_(service), guard_(service.operationLock_), stop_(outer) {
        std::lock_guard lock(service_.activeLock_);
        service_.active_ = &stop_;
    }
    ~Operation() {
        std::lock_guard lock(service_.activeLock_);
        service_.active_ = nullptr;
    }
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;
    std::stop_token token() const { return stop_.token(); }

private:
    CleaningService& service_;
    std::lock_guard<std::mutex> guard_;
    LinkedStop stop_;
};

std::string expandTemplate(std::string_view pathTemplate) {
    if (pathTemplate == "~") {
        return homeDirectory();
    }
    if (pathTemplate.starts_with("~/")) {
        return homeDirectory() + std::string(pathTemplate.substr(1));
    }
    return std::string(pathTemplate);
}

std::string resolveDisabledPath(const PathSpec& path) {
    // The result is matched as a pattern, so the literal part has its pattern characters escaped.
    std::string base;
    for (char ch : normalizePath(expandTemplate(path.pathTemplate))) {
        if (ch == '*' || ch == '?' || ch == '[' || ch == '\\') {
            base.push_back('\\');
        }
        base.push_back(ch);
    }
    if (!path.pattern) {
        return base;
    }
    const std::string& pattern = *path.pattern;
    std::vector<std::string_view> parts = splitComponents(pattern);
    bool climbs = std::any_of(parts.begin(), parts.end(),
                              [](std::string_view c) { return c == "." || c == ".."; });
    if (pattern.empty() || pattern.front() == '/' || climbs) {
        throw CleanerError::invalidPath("Invalid disabled relative pattern");
    }
    return normalizePath(base + "/" + pattern);
}

CleaningService::CleaningService(std::shared_ptr<const VaultPolicy> policy)
    : policy_(std::move(policy)) {}

void CleaningService::cancel() {
    std::lock_guard lock(activeLock_);
    if (active_ != nullptr) {
        active_->requestStop();
    }
}

std::optional<ScanResult> CleaningService::scan(const std::vector<Target>& targets,
                                                const std::map<std::string, bool>& included,
                                                const std::stop_token& stop,
                                                OperationProgress* progress) {
    std::uint64_t generation = ++generation_;
    Operation operation(*this, stop);
    const std::stop_token token = operation.token();
    Clock::time_point start = Clock::now();
    ScanResult result;

    std::vector<std::pair<const Target*, const PathSpec*>> work;
    for (const Target& target : targets) {
        if (!target.enabled || !InclusionPreferences::includes(included, target.id)) {
            continue;
        }
        for (const PathSpec& path : target.paths) {
            if (path.enabled && (!path.id || InclusionPreferences::includes(included, *path.id))) {
                work.emplace_back(&target, &path);
            }
        }
    }
    if (progress != nullptr) {
        progress->setPhase("Measuring");
        progress->setTotal(work.size());
    }

    // Each location is measured on its own, side by side. A file hard-linked into several
    // locations is then taken off all but the first of them in catalog order, so the same
    // location carries it whichever finished first.
    struct Measured {
        std::uint64_t bytes = 0;
        std::uint64_t files = 0;
        std::vector<std::string> warnings;
        HardlinkLedger ledger;
    };
    std::vector<Measured> measured(work.size());
    parallelFor(work.size(), hardwareWorkers(), token, [&](size_t i) {
        const auto& [target, path] = work[i];
        Measured& m = measured[i];
        try {
            std::optional<std::string_view> pattern;
            if (path->pattern) {
                pattern = *path->pattern;
            }
            FootprintTally tally;
            for (const ResolvedRoot& root :
                 resolveRoots(path->pathTemplate, pattern, m.warnings, token)) {
                Footprint footprint =
                    measureFootprint(root.path, root.identity, m.warnings, tally, token);
                m.bytes = saturatingAdd(m.bytes, footprint.allocatedBytes);
                m.files = saturatingAdd(m.files, footprint.fileCount);
                if (progress != nullptr) {
                    progress->addBytes(footprint.allocatedBytes);
                    progress->addItems(footprint.fileCount);
                }
            }
            m.ledger = std::move(tally.ledger);
        } catch (const CleanerError& error) {
            if (error.kind() == CleanerError::Kind::operationCancelled) {
                throw;
            }
            m.warnings.push_back(error.what());
        }
        if (progress != nullptr) {
            progress->setCurrentPath(target->title);
            progress->addDone();
        }
    });
    throwIfStopped(token);

    std::unordered_set<EntryIdentity, EntryIdentityHash> carried;
    std::map<std::string, std::uint64_t> perTarget;
    for (size_t i = 0; i < work.size(); ++i) {
        const auto& [target, path] = work[i];
        Measured& m = measured[i];
        m.ledger.forEachCounted([&](const EntryIdentity& file, std::uint64_t bytes) {
            if (!carried.insert(file).second) {
                m.bytes = saturatingSub(m.bytes, bytes);
            }
        });
        result.itemCount = saturatingAdd(result.itemCount, m.files);
        result.warnings.insert(result.warnings.end(), m.warnings.begin(), m.warnings.end());
        result.perPathBytes.push_back({target->id, path->id.value_or(path->pathTemplate), m.bytes});
        perTarget[target->id] = saturatingAdd(perTarget[target->id], m.bytes);
        result.totalBytes = saturatingAdd(result.totalBytes, m.bytes);
    }
    for (const Target& target : targets) {
        if (auto found = perTarget.find(target.id); found != perTarget.end()) {
            result.perTargetBytes.push_back({target.id, found->second});
        }
    }
    result.durationMs = millisecondsSince(start);
    if (progress != nullptr) {
        progress->setPhase("Scan complete");
        progress->setBytes(result.totalBytes);
        progress->setFraction(1.0);
        progress->clearCurrentPath();
    }
    testhooks::beforeScanResult();
    if (generation != generation_.load()) {
        return std::nullopt; // a newer operation owns the screen now
    }
    return result;
}

std::vector<CacheCleaningCandidate>
CleaningService::buildCandidates(const std::vector<Target>& targets,
                                 const std::map<std::string, bool>& cleanIncluded,
                                 std::vector<CleanError>& errors) {
    struct Disabled {
        std::optional<std::string> location;
        std::string anchor;
    };
    std::vector<CacheCleaningCandidate> candidates;
    std::vector<Disabled> disabled;
    for (const Target& target : targets) {
        if (!target.enabled || !InclusionPreferences::includes(cleanIncluded, target.id)) {
            continue;
        }
        for (const PathSpec& path : target.paths) {
            bool included = path.enabled &&
                            (!path.id || InclusionPreferences::includes(cleanIncluded, *path.id));
            if (!included) {
                Disabled d{std::nullopt, expandTemplate(path.pathTemplate)};
                try {
                    d.location = resolveDisabledPath(path);
                } catch (const CleanerError& error) {
                    errors.push_back(
                        {d.anchor,
                         std::string("Could not preserve disabled selection: ") + error.what()});
                }
                disabled.push_back(std::move(d));
                continue;
            }
            std::vector<std::string> warnings;
            try {
                std::optional<std::string_view> pattern;
                if (path.pattern) {
                    pattern = *path.pattern;
                }
                for (const ResolvedRoot& root :
                     resolveRoots(path.pathTemplate, pattern, warnings)) {
                    candidates.push_back({root.path, {}, false, target.id});
                }
            } catch (const CleanerError& error) {
                errors.push_back({expandTemplate(path.pathTemplate), error.what()});
            }
            for (const std::string& warning : warnings) {
                errors.push_back({expandTemplate(path.pathTemplate), warning});
            }
        }
    }

    std::vector<bool> skipped(candidates.size(), false);
    for (const Disabled& d : disabled) {
        for (size_t i = 0; i < candidates.size(); ++i) {
            CacheCleaningCandidate& c = candidates[i];
            if (!d.location) {
                if (isInside(d.anchor, c.path) || isInside(c.path, d.anchor)) {
                    if (!skipped[i]) {
                        errors.push_back({c.path, "Skipped because a related disabled selection "
                                                  "could not be resolved"});
                    }
                    skipped[i] = true;
                }
                continue;
            }
            if (std::optional<std::string> below = globRemainder(*d.location, c.path)) {
                // An exclusion equal to the location keeps all of it; the planner skips it.
                c.excludes.push_back(*below);
                continue;
            }
            // The location lies inside something switched off (patterns may name it).
            std::string prefix;
            for (std::string_view component : splitComponents(c.path)) {
                prefix.append("/").append(component);
                if (::fnmatch(d.location->c_str(), prefix.c_str(), FNM_PERIOD) == 0) {
                    c.excludes.push_back(std::string());
                    break;
                }
            }
        }
    }

    std::vector<bool> incompatible(candidates.size(), false);
    std::vector<bool> duplicate(candidates.size(), false);
    for (size_t i = 0; i < candidates.size(); ++i) {
        for (size_t j = i + 1; j < candidates.size(); ++j) {
            const CacheCleaningCandidate& a = candidates[i];
            const CacheCleaningCandidate& b = candidates[j];
            bool bInsideA = isInside(b.path, a.path);
            bool aInsideB = isInside(a.path, b.path);
            if (!bInsideA && !aInsideB) {
                continue;
            }
            if (a.excludes != b.excludes) {
                incompatible[i] = incompatible[j] = true;
            } else {
                // Agreeing overlaps are measured and moved once, as the outer location.
                duplicate[bInsideA ? j : i] = true;
            }
        }
    }
    std::vector<CacheCleaningCandidate> kept;
    for (size_t i = 0; i < candidates.size(); ++i) {
        if (skipped[i]) {
            continue;
        }
        if (incompatible[i]) {
            errors.push_back({candidates[i].path,
                              "Skipped overlapping cache selections with incompatible exclusions"});
            continue;
        }
        if (!duplicate[i]) {
            kept.push_back(std::move(candidates[i]));
        }
    }
    return kept;
}

namespace {

// Splits a location that holds exclusions into the pieces that move on their own: every entry
// that is not excluded and holds no exclusion. A folder that may hold one is opened and split
// further. Stops at the first thing that makes the location unsafe to move in pieces.
class SplitVisitor {
public:
    struct Folder {
        std::string relative; // below the location, "" for the location itself
    };

    SplitVisitor(const CacheCleaningCandidate& candidate, dev_t device, size_t cap)
        : candidate_(candidate), device_(device), cap_(cap) {}

    WalkStep visit(Folder& in, const WalkEntry& entry) {
        std::string relative =
            in.relative.empty() ? std::string(entry.name) : in.relative + "/" + entry.name;
        if (isExcluded(candidate_.excludes, relative)) {
            return WalkStep::skip;
        }
        const struct stat& st = entry.stat();
        if (st.st_dev != device_) {
            problem_ = "Kept in place: it is on another volume";
            return WalkStep::stop;
        }
        if (isProtected(entry.path())) {
            problem_ = "Kept in place: it contains protected or unreadable entries";
            return WalkStep::stop;
        }
        if (S_ISDIR(st.st_mode) && mayContainExclusion(candidate_.excludes, relative)) {
            return WalkStep::enter;
        }
        pieces_.emplace_back(entry.path(), st);
        if (pieces_.size() > cap_) {
            problem_ = "Kept in place: it would split into more than " + std::to_string(cap_) +
                       " separate Trash items";
            return WalkStep::stop;
        }
        return WalkStep::skip;
    }
    void enter(Folder& child, Folder& in, const WalkEntry& entry) {
        child.relative =
            in.relative.empty() ? std::string(entry.name) : in.relative + "/" + entry.name;
    }
    void leave(Folder&, Folder*, const WalkExit&) {}
    WalkStep problem(Folder&, const std::string&, const CleanerError&) {
        problem_ = "Kept in place: it contains protected or unreadable entries";
        return WalkStep::stop;
    }

    const std::string& problemText() const noexcept { return problem_; }
    std::vector<std::pair<std::string, struct stat>>& pieces() noexcept { return pieces_; }

private:
    const CacheCleaningCandidate& candidate_;
    dev_t device_;
    size_t cap_;
    std::string problem_;
    std::vector<std::pair<std::string, struct stat>> pieces_;
};

} // namespace

CleanPlan CleaningService::plan(const std::vector<CacheCleaningCandidate>& candidates,
                                const std::stop_token& stop, OperationProgress* progress) {
    Operation operation(*this, stop);
    const std::stop_token token = operation.token();
    CleanPlan plan;
    if (progress != nullptr) {
        progress->setPhase("Measuring what moving to the Trash would free");
        progress->setTotal(candidates.size());
    }
    for (size_t index = 0; index < candidates.size(); ++index) {
        throwIfStopped(token);
        const CacheCleaningCandidate& c = candidates[index];
        if (progress != nullptr) {
            progress->setCurrentPath(c.path);
            progress->setBytes(plan.plannedFreeableBytes);
            progress->setItems(plan.paths.size());
            progress->setFraction(static_cast<double>(index) /
                                  static_cast<double>(std::max<size_t>(candidates.size(), 1)));
        }
        try {
            validateOperablePath(c.path);
        } catch (const CleanerError&) {
            continue; // protected or out of scope: never offered, never mentioned
        }
        if (std::find(c.excludes.begin(), c.excludes.end(), std::string()) != c.excludes.end()) {
            continue;
        }
        std::optional<ParentHandle> parent = openParent(c.path);
        std::optional<struct stat> st;
        if (parent) {
            st = statEntry(parent->fd.get(), parent->name.c_str(), c.path);
        }
        if (!st || S_ISLNK(st->st_mode)) {
            continue;
        }
        std::string problem;
        if (c.excludes.empty() && !c.preserveRoot) {
            if (auto item = measureItem(c.path, *st, c.targetID, token, problem)) {
                plan.plannedFreeableBytes =
                    saturatingAdd(plan.plannedFreeableBytes, item->freeableBytes);
                plan.paths.push_back(std::move(*item));
            } else if (!problem.empty()) {
                plan.errors.push_back({c.path, problem});
            }
            continue;
        }
        if (!S_ISDIR(st->st_mode)) {
            continue;
        }

        SplitVisitor split(c, st->st_dev, c.preserveRoot ? 2000 : 500);
        try {
            UniqueFd rootFd = openListedFolder(parent->fd.get(), parent->name.c_str(), c.path, *st);
            if (!rootFd) {
                continue;
            }
            SplitVisitor::Folder root;
            WalkOptions options;
            options.utf8Names = true;
            options.stop = token;
            if (walkFolder(split, root, std::move(rootFd), c.path, options) == WalkEnd::cancelled) {
                throw CleanerError::cancelled();
            }
        } catch (const CleanerError& error) {
            if (error.kind() == CleanerError::Kind::operationCancelled) {
                throw;
            }
            plan.errors.push_back({c.path, "Kept in place: it contains protected or unreadable "
                                           "entries"});
            continue;
        }
        problem = split.problemText();
        std::vector<CleanPath> items;
        for (const auto& [piece, pieceStat] : split.pieces()) {
            if (!problem.empty()) {
                break;
            }
            std::string pieceProblem;
            if (auto item = measureItem(piece, pieceStat, c.targetID, token, pieceProblem)) {
                items.push_back(std::move(*item));
            } else if (!pieceProblem.empty()) {
                problem = pieceProblem;
            }
        }
        if (!problem.empty()) {
            plan.errors.push_back({c.path, problem});
            continue;
        }
        for (CleanPath& item : items) {
            plan.plannedFreeableBytes =
                saturatingAdd(plan.plannedFreeableBytes, item.freeableBytes);
            plan.paths.push_back(std::move(item));
        }
    }
    return plan;
}

CleanResult CleaningService::clean(const CleanPlan& plan, const JournalRecording& recording,
                                   const std::stop_token& stop, OperationProgress* progress) {
    Operation operation(*this, stop);
    const std::stop_token token = operation.token();
    Clock::time_point start = Clock::now();
    CleanResult result;
    if (plan.paths.empty()) {
        return result;
    }
    // Catalogued caches hold thumbnails and databases of their own; the catalog decided what they
    // are, the vault still checks policy, identity and size right before the move.
    VaultService vault = VaultService::standard(
        policy_, [](const std::string&) { return true; }, DescendantRules::policyOnly);
    std::vector<std::string> urls;
    for (const CleanPath& path : plan.paths) {
        urls.push_back(path.url);
    }
    VaultPlan vaultPlan = vault.planner(urls, {}, nullptr);
    std::vector<size_t> ticked;
    for (size_t i = 0; i < vaultPlan.items.size(); ++i) {
        const VaultPlanItem& item = vaultPlan.items[i];
        const CleanPath& planned = plan.paths[i];
        if (item.denied) {
            result.errors.push_back({planned.url, std::string(denyText(*item.denied))});
        } else if (item.identity() != planned.identity()) {
            result.errors.push_back(
                {planned.url, stayedNote(planned.url, VaultDenyReason::identityChanged)});
        } else {
            ticked.push_back(i);
        }
    }
    if (progress != nullptr) {
        progress->setPhase("Moving to the Trash");
    }
    if (recording.journal != nullptr) {
        vault.writeAhead = journalWriteAhead(*recording.journal, recording.title, recording.kind,
                                             "caches", recording.context);
    }
    MoveOutcome outcome = vault.move(vaultPlan, ticked, token, progress);
    for (const std::string& note : outcome.notes) {
        std::string path = note.substr(0, note.find(": "));
        result.errors.push_back({path == note ? std::string() : path, note});
    }
    std::vector<TrashedItem> journaled;
    for (const MovedItem& moved : outcome.moved) {
        auto planned = std::find_if(plan.paths.begin(), plan.paths.end(), [&](const CleanPath& p) {
            return p.url == moved.originalPath;
        });
        std::optional<std::string> targetID =
            planned != plan.paths.end() ? planned->targetID : std::nullopt;
        result.bytesRemoved = saturatingAdd(result.bytesRemoved, moved.bytes);
        result.filesRemoved = saturatingAdd(result.filesRemoved, 1);
        if (planned != plan.paths.end()) {
            result.freeableBytes = saturatingAdd(result.freeableBytes, planned->freeableBytes);
        }
        result.moved.push_back(moved);
        result.movedTargets.push_back(targetID);
        std::string group = recording.groupOf   ? recording.groupOf(targetID)
                            : recording.context ? recording.context->group
                                                : targetID.value_or("caches");
        journaled.push_back({moved.originalPath, moved.trashPath, moved.bytes, moved.identityToken,
                             group, false, targetID});
    }
    if (recording.journal != nullptr && !journaled.empty()) {
        try {
            if (recording.context) {
                // Each item keeps its own group; the context only names the entry.
                std::map<std::string, std::vector<TrashedItem>> byGroup;
                for (TrashedItem& item : journaled) {
                    byGroup[item.group].push_back(item);
                }
                for (auto& [group, items] : byGroup) {
                    result.journalEntryID = recording.journal->record(
                        items, recording.title, recording.kind,
                        JournalContext{recording.context->entryID, group});
                }
            } else {
                result.journalEntryID =
                    recording.journal->record(journaled, recording.title, recording.kind);
            }
        } catch (const CleanerError& error) {
            result.errors.push_back(
                {"", std::string("The move was not written to Activity: ") + error.what()});
        }
    } else if (recording.journal != nullptr) {
        // Nothing moved: the record written ahead of the move is dropped.
        recording.journal->record({}, recording.title, recording.kind, recording.context);
    }
    result.durationMs = millisecondsSince(start);
    return result;
}

} // namespace sd
