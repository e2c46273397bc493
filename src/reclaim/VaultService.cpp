#include "reclaim/VaultService.h"

#include "base/CleanerError.h"
#include "base/Saturating.h"
#include "core/CoreFileSystem.h"
#include "core/PathRules.h"
#include "platform/FileSystemExtras.h"
#include "platform/Trash.h"
#include "reclaim/PutBack.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <random>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace sd {
namespace {

constexpr std::array<std::string_view, 4> repositoryMarkers{".git", ".hg", ".svn", ".fossil"};

bool isRepositoryMarker(std::string_view name) {
    return std::find(repositoryMarkers.begin(), repositoryMarkers.end(), name) !=
           repositoryMarkers.end();
}

std::string freshNonce() {
    std::random_device random;
    char text[40];
    std::snprintf(text, sizeof text, "%08x%08x%08x%08x", random(), random(), random(), random());
    return text;
}

// A stable digest of what a folder holds: every entry's relative name, type, size, times and
// inode, in walk order. Any change between plan and move changes it.
class Fingerprint {
public:
    void add(std::string_view bytes) {
        for (char c : bytes) {
            hash_ = (hash_ ^ static_cast<unsigned char>(c)) * 0x100000001B3ULL;
        }
        hash_ = (hash_ ^ 0xFF) * 0x100000001B3ULL; // field separator
    }
    void add(std::uint64_t value) {
        char bytes[sizeof value];
        std::memcpy(bytes, &value, sizeof value);
        add(std::string_view(bytes, sizeof bytes));
    }
    std::string text() const {
        char out[20];
        std::snprintf(out, sizeof out, "%016llx", static_cast<unsigned long long>(hash_));
        return out;
    }

private:
    std::uint64_t hash_ = 0xCBF29CE484222325ULL;
};

struct Denial {
    std::optional<VaultDenyReason> reason;
    void note(VaultDenyReason r) {
        if (!reason) {
            reason = r;
        }
    }
};

// Walks everything below a directory item without following links or leaving its device,
// measuring it and noting the first rule something inside breaks.
void walkDirectoryItem(const VaultPolicy& policy, VaultPlanItem& item, UniqueFd itemFd,
                       const struct stat& itemStat, const std::string& foldedItem,
                       const ClassifyOptions& options, VaultMeter* meter, Denial& denial,
                       const Cancellation& cancel) {
    struct Pending {
        UniqueFd fd;
        std::string path;
        std::string folded;
        std::vector<std::string> entries;
        int depth = 0;
        size_t next = 0;
    };
    FootprintTally tally;
    Fingerprint fingerprint;
    std::vector<Pending> stack;
    stack.push_back({std::move(itemFd), item.resolvedPath, foldedItem, {}, 0, 0});
    stack.back().entries = listDirectory(stack.back().fd.get(), item.resolvedPath, cancel);
    if (meter != nullptr) {
        meter->addEntries(stack.back().entries.size());
    }
    std::uint64_t logical = 0;
    while (!stack.empty()) {
        Pending& frame = stack.back();
        if (frame.next >= frame.entries.size()) {
            stack.pop_back();
            continue;
        }
        cancel.check();
        const std::string& name = frame.entries[frame.next++];
        std::string path = frame.path + "/" + name;
        std::optional<struct stat> st = statEntry(frame.fd.get(), name.c_str(), path);
        if (!st) {
            continue;
        }
        std::string folded = frame.folded + "/" + foldPath(name);
        fingerprint.add(std::string_view(path).substr(item.resolvedPath.size()));
        fingerprint.add(static_cast<std::uint64_t>(st->st_mode));
        fingerprint.add(static_cast<std::uint64_t>(st->st_size));
        fingerprint.add(static_cast<std::uint64_t>(st->st_mtim.tv_sec));
        fingerprint.add(static_cast<std::uint64_t>(st->st_mtim.tv_nsec));
        fingerprint.add(static_cast<std::uint64_t>(st->st_ino));

        if (auto reason = policy.descendantVerdict(foldedItem, folded)) {
            (void)reason;
            denial.note(VaultDenyReason::protectedDescendant);
        }
        if (options.descendants == DescendantRules::policyAndUserData) {
            std::string_view foldedName = std::string_view(folded).substr(frame.folded.size() + 1);
            // Only what the descendant adds below the item is judged: the item's own path was
            // judged as a whole when it was classified.
            if (looksLikeUserData(std::string_view(folded).substr(foldedItem.size()), foldedName)) {
                denial.note(VaultDenyReason::protectedDescendant);
            }
        }
        if (isRepositoryMarker(name)) {
            denial.note(VaultDenyReason::gitWorkingTree);
        }
        if (S_ISLNK(st->st_mode)) {
            continue;
        }
        if (st->st_dev != itemStat.st_dev) {
            denial.note(VaultDenyReason::nonTrashableVolume);
            continue;
        }
        if (S_ISREG(st->st_mode)) {
            if (st->st_nlink > 1) {
                denial.note(VaultDenyReason::multiplyLinked);
            }
            if (platform::isDataless(*st)) {
                denial.note(VaultDenyReason::datalessFile);
            }
            logical = saturatingAdd(logical,
                                    st->st_size < 0 ? 0 : static_cast<std::uint64_t>(st->st_size));
            if (tally.ledger.countOnce(*st)) {
                item.physicalBytes = saturatingAdd(item.physicalBytes, allocatedBytesOf(*st));
            }
            if (auto sample = readCloneAttributes(frame.fd.get(), name.c_str(), path,
                                                  EntryIdentity::of(*st), *st)) {
                tally.freeable.add(*sample);
            }
            continue;
        }
        if (!S_ISDIR(st->st_mode) || frame.depth + 1 >= maxWalkDepth) {
            if (S_ISDIR(st->st_mode)) {
                denial.note(VaultDenyReason::unreadable);
            }
            continue;
        }
        UniqueFd child = openListing(frame.fd.get(), name.c_str());
        struct stat opened {};
        if (!child || ::fstat(child.get(), &opened) != 0 || opened.st_ino != st->st_ino ||
            opened.st_dev != st->st_dev) {
            // Unreadable or swapped while we looked: nothing below can be vouched for.
            denial.note(child ? VaultDenyReason::identityChanged : VaultDenyReason::unreadable);
            continue;
        }
        Pending next{std::move(child), std::move(path), std::move(folded), {}, frame.depth + 1, 0};
        next.entries = listDirectory(next.fd.get(), next.path, cancel);
        if (meter != nullptr) {
            meter->addEntries(next.entries.size());
        }
        stack.push_back(std::move(next)); // `frame` may dangle from here on
    }
    item.size = logical;
    item.freeableBytes = tally.freeable.freeableBytes();
    item.dirFingerprint = fingerprint.text();
}

} // namespace

std::optional<std::string> enclosingRepository(const std::string& path) {
    std::string dir = path;
    while (true) {
        size_t slash = dir.rfind('/');
        if (slash == std::string::npos) {
            return std::nullopt;
        }
        dir = slash == 0 ? std::string("/") : dir.substr(0, slash);
        for (std::string_view marker : repositoryMarkers) {
            std::string probe = (dir == "/" ? std::string() : dir) + "/" + std::string(marker);
            struct stat st {};
            if (::lstat(probe.c_str(), &st) == 0) {
                return dir;
            }
        }
        if (dir == "/") {
            return std::nullopt;
        }
    }
}

std::vector<std::string> expandScopes(const std::vector<std::string>& scopes,
                                      const std::string& home) {
    if (scopes.empty()) {
        return {home, "/Applications"};
    }
    std::vector<std::string> out;
    for (const std::string& scope : scopes) {
        if (scope == "~") {
            out.push_back(home);
        } else if (scope.starts_with("~/")) {
            out.push_back(home + scope.substr(1));
        } else {
            out.push_back(scope);
        }
    }
    return out;
}

VaultPlanItem classifyPath(const VaultPolicy& policy, const std::string& requested,
                           const ClassifyOptions& options, VaultMeter* meter,
                           const Cancellation& cancel) {
    VaultPlanItem item;
    item.requestedPath = requested;
    auto deny = [&item](VaultDenyReason reason) {
        item.denied = reason;
        item.defaultSelected = false;
        return item;
    };
    ResolvedPath resolved = resolveRequestedPath(requested);
    item.resolvedPath = resolved.path.empty() ? requested : resolved.path;
    if (resolved.denied) {
        return deny(*resolved.denied);
    }
    std::string folded = foldPath(item.resolvedPath);
    if (auto reason = policy.verdict(folded)) {
        return deny(*reason);
    }
    if (options.checkScope) {
        bool inScope =
            std::any_of(options.scopes.begin(), options.scopes.end(),
                        [&](const std::string& s) { return isInside(item.resolvedPath, s); });
        if (!inScope) {
            return deny(VaultDenyReason::outsideGrantedScope);
        }
        if (std::find(options.scopes.begin(), options.scopes.end(), item.resolvedPath) !=
            options.scopes.end()) {
            return deny(VaultDenyReason::tooShallow);
        }
    }

    std::size_t slash = item.resolvedPath.rfind('/');
    std::string name = item.resolvedPath.substr(slash + 1);
    if (options.isCatalogued && options.isCatalogued(item.resolvedPath)) {
        item.classification = VaultClassification::catalogued;
        item.friction = VaultFriction::cataloguedLow;
    }
    if (looksLikeUserData(folded, foldPath(name))) {
        item.classification = VaultClassification::obviousUserData;
        item.friction = VaultFriction::confirmOwnFiles;
    }

    Denial denial;
    try {
        std::optional<ParentHandle> parent = openParent(item.resolvedPath);
        std::optional<struct stat> st;
        if (parent) {
            st = statEntry(parent->fd.get(), parent->name.c_str(), item.resolvedPath);
        }
        if (!st) {
            return deny(VaultDenyReason::unreadable);
        }
        if (S_ISLNK(st->st_mode)) {
            return deny(VaultDenyReason::symlinkInPath);
        }
        item.dev = static_cast<std::uint64_t>(st->st_dev);
        item.ino = static_cast<std::uint64_t>(st->st_ino);
        item.fileType = static_cast<std::uint32_t>(st->st_mode & S_IFMT);
        item.ctimeSec = st->st_ctim.tv_sec;
        item.ctimeNsec = st->st_ctim.tv_nsec;
        if (auto born = platform::birthTime(parent->fd.get(), parent->name.c_str(), *st)) {
            item.birthtimeSec = born->sec;
            item.birthtimeNsec = born->nsec;
        }
        item.identityToken = identityToken(item.identity());
        item.isDir = S_ISDIR(st->st_mode);
        item.dataless = platform::isDataless(*st);
        if (item.dataless) {
            denial.note(VaultDenyReason::datalessFile);
        }
        if (auto repository = enclosingRepository(item.resolvedPath)) {
            if (!policy.vcsIgnore().isIgnoredAndUntracked ||
                !policy.vcsIgnore().isIgnoredAndUntracked(*repository, item.resolvedPath)) {
                denial.note(VaultDenyReason::gitWorkingTree);
            }
        }
        if (item.isDir) {
            UniqueFd fd = openListing(parent->fd.get(), parent->name.c_str());
            struct stat opened {};
            if (!fd || ::fstat(fd.get(), &opened) != 0 || opened.st_ino != st->st_ino ||
                opened.st_dev != st->st_dev) {
                return deny(fd ? VaultDenyReason::identityChanged : VaultDenyReason::unreadable);
            }
            walkDirectoryItem(policy, item, std::move(fd), *st, folded, options, meter, denial,
                              cancel);
        } else if (S_ISREG(st->st_mode)) {
            if (st->st_nlink > 1) {
                denial.note(VaultDenyReason::multiplyLinked);
            }
            item.size = st->st_size < 0 ? 0 : static_cast<std::uint64_t>(st->st_size);
            item.physicalBytes = allocatedBytesOf(*st);
            FreeableAccumulator freeable;
            if (auto sample = readCloneAttributes(parent->fd.get(), parent->name.c_str(),
                                                  item.resolvedPath, EntryIdentity::of(*st), *st)) {
                freeable.add(*sample);
            }
            item.freeableBytes = freeable.freeableBytes();
        }
        if (!denial.reason && !platform::trashCanTake(item.resolvedPath, *st)) {
            denial.note(VaultDenyReason::nonTrashableVolume);
        }
    } catch (const CleanerError& error) {
        if (error.kind() == CleanerError::Kind::operationCancelled) {
            throw;
        }
        denial.note(error.kind() == CleanerError::Kind::safetyViolation
                        ? VaultDenyReason::identityChanged
                        : VaultDenyReason::unreadable);
    }
    item.displayedBytes = item.physicalBytes;
    if (denial.reason) {
        return deny(*denial.reason);
    }
    item.defaultSelected = item.classification != VaultClassification::obviousUserData;
    return item;
}

std::string stayedNote(const std::string& path, VaultDenyReason reason) {
    std::string_view why;
    switch (reason) {
    case VaultDenyReason::stalePlan:
        why = "the plan it belonged to is out of date";
        break;
    case VaultDenyReason::unreadable:
        why = "it can no longer be read";
        break;
    case VaultDenyReason::identityChanged:
        why = "something else now sits at that path";
        break;
    case VaultDenyReason::sizeChangedSinceScan:
        why = "it changed since it was measured";
        break;
    case VaultDenyReason::datalessStateChanged:
        why = "its files moved between this disk and the cloud";
        break;
    case VaultDenyReason::symlinkInPath:
        why = "a folder on its way is now a link";
        break;
    case VaultDenyReason::nonTrashableVolume:
        why = "no Trash on its disk can take it";
        break;
    default:
        return path + ": " + std::string(denyText(reason)) + " It was left in place.";
    }
    return path + ": " + std::string(why) + " — left in place.";
}

std::vector<RecycleAnswer> recycleToTrash(const std::vector<RecycleRequest>& requests) {
    std::vector<RecycleAnswer> answers(requests.size());
    for (size_t i = 0; i < requests.size(); ++i) {
        const RecycleRequest& request = requests[i];
        RecycleAnswer& answer = answers[i];
        try {
            std::optional<ParentHandle> parent = openParent(request.path);
            std::optional<struct stat> st;
            if (parent) {
                st = statEntry(parent->fd.get(), parent->name.c_str(), request.path);
            }
            if (!st) {
                answer.error = request.path + ": it is gone — nothing was moved.";
                continue;
            }
            if (EntryIdentity::of(*st) != request.identity) {
                answer.error = request.path + ": object identity changed since planning";
                continue;
            }
            platform::TrashMoveResult moved = platform::moveToTrash(
                parent->fd.get(), parent->name, request.path, *st, request.bytes);
            if (moved.trashPath) {
                answer.trashPath = *moved.trashPath;
            } else if (moved.error == ENOENT) {
                answer.error =
                    request.path + ": it vanished before it could move — nothing was moved.";
            } else if (moved.nonTrashable) {
                answer.error = stayedNote(request.path, VaultDenyReason::nonTrashableVolume);
            } else {
                answer.error = request.path + ": the Trash refused it (" +
                               std::string(std::strerror(moved.error)) + ") — left in place.";
            }
        } catch (const CleanerError& error) {
            answer.error = request.path + ": " + error.what() + " — left in place.";
        }
    }
    return answers;
}

VaultService VaultService::standard(std::shared_ptr<const VaultPolicy> policy,
                                    std::function<bool(const std::string&)> isCatalogued,
                                    DescendantRules descendants) {
    VaultService service;
    auto optionsFor = [policy, isCatalogued, descendants](const std::vector<std::string>& scopes) {
        ClassifyOptions options;
        options.scopes = expandScopes(scopes, policy->home());
        options.isCatalogued = isCatalogued;
        options.descendants = descendants;
        return options;
    };
    service.planner = [policy, optionsFor](const std::vector<std::string>& paths,
                                           const std::vector<std::string>& scopes,
                                           VaultMeter* meter) {
        ClassifyOptions options = optionsFor(scopes);
        struct ClassifiedItems {
            std::mutex lock;
            std::vector<std::optional<VaultPlanItem>> slots;
            size_t cursor = 0;
        } classified;
        classified.slots.resize(paths.size());
        size_t workers = std::min<size_t>(std::max<size_t>(paths.size(), 1), 4);
        auto work = [&] {
            for (;;) {
                size_t index = 0;
                {
                    std::lock_guard guard(classified.lock);
                    if (classified.cursor >= paths.size()) {
                        return;
                    }
                    index = classified.cursor++;
                }
                VaultPlanItem item;
                try {
                    item = classifyPath(*policy, paths[index], options, meter);
                } catch (const std::exception&) {
                    item.requestedPath = item.resolvedPath = paths[index];
                    item.denied = VaultDenyReason::unreadable;
                }
                if (meter != nullptr) {
                    meter->finishItem();
                }
                std::lock_guard guard(classified.lock);
                classified.slots[index] = std::move(item);
            }
        };
        {
            std::vector<std::jthread> threads;
            for (size_t w = 1; w < workers; ++w) {
                threads.emplace_back(work);
            }
            work();
        }
        VaultPlan plan;
        plan.planNonce = freshNonce();
        for (std::optional<VaultPlanItem>& slot : classified.slots) {
            slot->planNonce = plan.planNonce;
            plan.items.push_back(std::move(*slot));
        }
        return plan;
    };
    service.validator = [policy, optionsFor](const VaultPlanItem& item, const std::string& nonce,
                                             VaultMeter* meter) {
        if (item.planNonce != nonce) {
            throw VaultDenied(VaultDenyReason::stalePlan);
        }
        ClassifyOptions options = optionsFor({});
        // Scope was settled by the plan, which knew the scopes granted then.
        options.checkScope = false;
        VaultPlanItem fresh = classifyPath(*policy, item.requestedPath, options, meter);
        if (fresh.denied) {
            throw VaultDenied(*fresh.denied);
        }
        if (fresh.identity() != item.identity() || fresh.birthtimeSec != item.birthtimeSec ||
            fresh.birthtimeNsec != item.birthtimeNsec ||
            fresh.identityToken != item.identityToken) {
            throw VaultDenied(VaultDenyReason::identityChanged);
        }
        if (fresh.size != item.size || fresh.physicalBytes != item.physicalBytes ||
            fresh.dirFingerprint != item.dirFingerprint) {
            throw VaultDenied(VaultDenyReason::sizeChangedSinceScan);
        }
        if (fresh.dataless != item.dataless) {
            throw VaultDenied(VaultDenyReason::datalessStateChanged);
        }
        fresh.planNonce = item.planNonce;
        fresh.classification = item.classification;
        fresh.friction = item.friction;
        return fresh;
    };
    service.recycle = &recycleToTrash;
    return service;
}

MoveOutcome VaultService::move(const VaultPlan& plan, std::vector<size_t> ticked,
                               const std::function<void(const VaultMoveProgress&)>& progress,
                               const Cancellation& cancel) const {
    MoveOutcome outcome;
    std::sort(ticked.begin(), ticked.end());
    ticked.erase(std::unique(ticked.begin(), ticked.end()), ticked.end());
    std::erase_if(ticked, [&](size_t i) { return i >= plan.items.size(); });

    VaultMoveProgress state;
    state.total = ticked.size();
    for (size_t index : ticked) {
        state.totalBytes = saturatingAdd(state.totalBytes, plan.items[index].physicalBytes);
    }
    auto report = [&] {
        if (progress) {
            progress(state);
        }
    };

    std::vector<size_t> passing;
    std::vector<VaultPlanItem> validated;
    bool endedEarly = false;
    for (size_t position = 0; position < ticked.size(); ++position) {
        size_t index = ticked[position];
        const VaultPlanItem& item = plan.items[index];
        if (cancel.requested()) {
            endedEarly = true;
            for (size_t rest = position; rest < ticked.size(); ++rest) {
                outcome.stayed.emplace_back(ticked[rest], std::nullopt);
            }
            break;
        }
        try {
            if (item.denied) {
                throw VaultDenied(*item.denied);
            }
            validated.push_back(validator(item, plan.planNonce, nullptr));
            passing.push_back(index);
        } catch (const VaultDenied& denied) {
            outcome.notes.push_back(stayedNote(item.resolvedPath, denied.reason()));
            outcome.stayed.emplace_back(index, denied.reason());
            ++state.finished;
            report();
        } catch (const CleanerError& error) {
            outcome.notes.push_back(item.resolvedPath + ": " + error.what() + " — left in place.");
            outcome.stayed.emplace_back(index, VaultDenyReason::unreadable);
            ++state.finished;
            report();
        }
    }

    if (!passing.empty()) {
        std::vector<RecycleRequest> requests;
        for (const VaultPlanItem& item : validated) {
            requests.push_back({item.resolvedPath, item.identity(), item.physicalBytes});
        }
        std::vector<RecycleAnswer> answers = recycle(requests);
        answers.resize(requests.size());
        for (size_t i = 0; i < requests.size(); ++i) {
            const VaultPlanItem& item = validated[i];
            RecycleAnswer& answer = answers[i];
            ++state.finished;
            if (!answer.trashPath) {
                outcome.notes.push_back(answer.error.empty()
                                            ? item.resolvedPath +
                                                  ": the Trash did not take it — left in place."
                                            : answer.error);
                outcome.stayed.emplace_back(passing[i], std::nullopt);
                report();
                continue;
            }
            // Whatever reached the Trash must be the object that was validated.
            std::optional<struct stat> arrived;
            try {
                if (auto parent = openParent(*answer.trashPath)) {
                    arrived = statEntry(parent->fd.get(), parent->name.c_str(), *answer.trashPath);
                }
            } catch (const CleanerError&) {
            }
            if (!arrived || EntryIdentity::of(*arrived) != item.identity()) {
                // Something was swapped in after the last check; it was never meant to move,
                // so it goes back where it was when nothing has taken that place.
                if (arrived && restoreFromTrash(*answer.trashPath, item.resolvedPath,
                                                std::nullopt) == RestoreOutcome::restored) {
                    platform::forgetTrashed(*answer.trashPath);
                }
                outcome.notes.push_back(item.resolvedPath +
                                        ": object identity changed since planning");
                outcome.stayed.emplace_back(passing[i], VaultDenyReason::identityChanged);
                report();
                continue;
            }
            outcome.moved.push_back(
                {item.resolvedPath, *answer.trashPath, item.physicalBytes, item.identityToken});
            ++state.moved;
            state.movedBytes = saturatingAdd(state.movedBytes, item.physicalBytes);
            report();
        }
    }
    if (endedEarly) {
        bool stopped = cancel.flag != nullptr && cancel.flag->isCancelled();
        outcome.notes.push_back(stopped ? "Stopped; the rest wasn't moved."
                                        : "Operation cancelled; the rest wasn't moved.");
    }
    return outcome;
}

} // namespace sd
