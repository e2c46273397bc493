#include "reclaim/VaultService.h"

#include "base/CleanerError.h"
#include "base/ParallelFor.h"
#include "base/Saturating.h"
#include "core/CoreFileSystem.h"
#include "core/PathRules.h"
#include "core/Walk.h"
#include "platform/FileSystemExtras.h"
#include "platform/Trash.h"
#include "reclaim/PutBack.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
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

// Looks at everything below a directory item without following links or leaving its device,
// measuring it, fingerprinting it in name order and noting the first rule something inside
// breaks.
class ItemVisitor {
public:
    struct Folder {
        std::string folded; // the folder's folded path
    };

    ItemVisitor(const VaultPolicy& policy, VaultPlanItem& item, const struct stat& itemStat,
                const std::string& foldedItem, const ClassifyOptions& options,
                OperationProgress* progress, Denial& denial)
        : policy_(policy), item_(item), itemStat_(itemStat), foldedItem_(foldedItem),
          options_(options), progress_(progress), denial_(denial) {}

    WalkStep visit(Folder& in, const WalkEntry& entry) {
        const struct stat& st = entry.stat();
        const std::string& path = entry.path();
        if (progress_ != nullptr) {
            progress_->addItems(1);
        }
        std::string folded = in.folded + "/" + foldPath(entry.name);
        fingerprint_.add(std::string_view(path).substr(item_.resolvedPath.size()));
        fingerprint_.add(static_cast<std::uint64_t>(st.st_mode));
        fingerprint_.add(static_cast<std::uint64_t>(st.st_size));
        const Timestamp modified = platform::modifiedTime(st);
        fingerprint_.add(static_cast<std::uint64_t>(modified.sec));
        fingerprint_.add(static_cast<std::uint64_t>(modified.nsec));
        fingerprint_.add(static_cast<std::uint64_t>(st.st_ino));

        if (policy_.descendantVerdict(foldedItem_, folded)) {
            denial_.note(VaultDenyReason::protectedDescendant);
        }
        if (options_.descendants == DescendantRules::policyAndUserData) {
            std::string_view foldedName = std::string_view(folded).substr(in.folded.size() + 1);
            // Only what the descendant adds below the item is judged: the item's own path was
            // judged as a whole when it was classified.
            if (looksLikeUserData(std::string_view(folded).substr(foldedItem_.size()),
                                  foldedName)) {
                denial_.note(VaultDenyReason::protectedDescendant);
            }
        }
        if (isRepositoryMarker(entry.name)) {
            denial_.note(VaultDenyReason::gitWorkingTree);
        }
        if (S_ISLNK(st.st_mode)) {
            return WalkStep::skip;
        }
        if (st.st_dev != itemStat_.st_dev) {
            denial_.note(VaultDenyReason::nonTrashableVolume);
            return WalkStep::skip;
        }
        if (S_ISREG(st.st_mode)) {
            if (st.st_nlink > 1) {
                denial_.note(VaultDenyReason::multiplyLinked);
            }
            if (platform::isDataless(st)) {
                denial_.note(VaultDenyReason::datalessFile);
            }
            logical_ = saturatingAdd(logical_,
                                     st.st_size < 0 ? 0 : static_cast<std::uint64_t>(st.st_size));
            if (tally_.ledger.countOnce(st)) {
                item_.physicalBytes = saturatingAdd(item_.physicalBytes, allocatedBytesOf(st));
            }
            if (auto sample = readCloneAttributes(entry.folderFd, entry.name, path,
                                                  EntryIdentity::of(st), st)) {
                tally_.freeable.add(*sample);
            }
            return WalkStep::skip;
        }
        if (!S_ISDIR(st.st_mode)) {
            return WalkStep::skip;
        }
        if (entry.depth >= maxWalkDepth) {
            denial_.note(VaultDenyReason::unreadable);
            return WalkStep::skip;
        }
        pendingFolded_ = std::move(folded);
        return WalkStep::enter;
    }
    void enter(Folder& child, Folder&, const WalkEntry&) {
        child.folded = std::move(pendingFolded_);
    }
    void leave(Folder&, Folder*, const WalkExit&) {}
    WalkStep problem(Folder&, const std::string&, const CleanerError& error) {
        // Unreadable or swapped while we looked: nothing below can be vouched for.
        denial_.note(error.kind() == CleanerError::Kind::safetyViolation
                         ? VaultDenyReason::identityChanged
                         : VaultDenyReason::unreadable);
        return WalkStep::skip;
    }

    void finish() {
        item_.size = logical_;
        item_.freeableBytes = tally_.freeable.freeableBytes();
        item_.dirFingerprint = fingerprint_.text();
    }

private:
    const VaultPolicy& policy_;
    VaultPlanItem& item_;
    const struct stat& itemStat_;
    const std::string& foldedItem_;
    const ClassifyOptions& options_;
    OperationProgress* progress_;
    Denial& denial_;
    FootprintTally tally_;
    Fingerprint fingerprint_;
    std::uint64_t logical_ = 0;
    std::string pendingFolded_;
};

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
                           const ClassifyOptions& options, OperationProgress* progress,
                           const std::stop_token& stop) {
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
        const Timestamp changed = platform::changedTime(*st);
        item.ctimeSec = changed.sec;
        item.ctimeNsec = changed.nsec;
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
            VerifiedChild opened =
                openVerifiedChild(parent->fd.get(), parent->name.c_str(), item.resolvedPath, *st);
            if (opened.outcome != ChildOpening::opened) {
                return deny(opened.outcome == ChildOpening::changed
                                ? VaultDenyReason::identityChanged
                                : VaultDenyReason::unreadable);
            }
            ItemVisitor visitor(policy, item, *st, folded, options, progress, denial);
            ItemVisitor::Folder root{folded};
            WalkOptions walk; // names are bytes here: any name can be fingerprinted and moved
            walk.stop = stop;
            if (walkFolder(visitor, root, std::move(opened.fd), item.resolvedPath, walk) ==
                WalkEnd::cancelled) {
                throw CleanerError::cancelled();
            }
            visitor.finish();
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

std::string unrecordedMoveNote(const std::string& why) {
    return "The activity journal could not record the move (" + why + "), so nothing was moved.";
}

VaultService::WriteAhead journalWriteAhead(ReclaimJournal& journal, std::string title,
                                           JournalKind kind, std::string group,
                                           std::optional<JournalContext> context) {
    return [&journal, title = std::move(title), kind, group = std::move(group),
            context = std::move(context)](const std::vector<RecycleRequest>& requests) {
        std::vector<TrashedItem> planned;
        for (const RecycleRequest& request : requests) {
            planned.push_back({request.path, std::string(), request.bytes,
                               identityToken(request.identity), group, false, std::nullopt});
        }
        journal.writeAhead(std::move(planned), title, kind, context);
    };
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
                answer.error = request.path + ": the Trash refused it (" + errorText(moved.error) +
                               ") — left in place.";
            }
        } catch (const CleanerError& error) {
            answer.error = request.path + ": " + error.what() + " — left in place.";
        }
    }
    return answers;
}

VaultService VaultService::standard(std::shared_ptr<const VaultPolicy> policy,
                                    const std::function<bool(const std::string&)>& isCatalogued,
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
                                           OperationProgress* progress) {
        ClassifyOptions options = optionsFor(scopes);
        std::vector<VaultPlanItem> items(paths.size());
        if (progress != nullptr) {
            progress->setTotal(paths.size());
        }
        parallelFor(paths.size(), 4, {}, [&](size_t index) {
            try {
                items[index] = classifyPath(*policy, paths[index], options, progress);
            } catch (const std::exception&) {
                items[index] = VaultPlanItem{};
                items[index].requestedPath = items[index].resolvedPath = paths[index];
                items[index].denied = VaultDenyReason::unreadable;
            }
            if (progress != nullptr) {
                progress->addDone();
            }
        });
        VaultPlan plan;
        plan.planNonce = freshNonce();
        for (VaultPlanItem& item : items) {
            item.planNonce = plan.planNonce;
            plan.items.push_back(std::move(item));
        }
        return plan;
    };
    service.validator = [policy, optionsFor](const VaultPlanItem& item, const std::string& nonce) {
        if (item.planNonce != nonce) {
            throw VaultDenied(VaultDenyReason::stalePlan);
        }
        ClassifyOptions options = optionsFor({});
        // Scope was settled by the plan, which knew the scopes granted then.
        options.checkScope = false;
        VaultPlanItem fresh = classifyPath(*policy, item.requestedPath, options, nullptr);
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
                               const std::stop_token& stop, OperationProgress* progress) const {
    MoveOutcome outcome;
    std::sort(ticked.begin(), ticked.end());
    ticked.erase(std::unique(ticked.begin(), ticked.end()), ticked.end());
    std::erase_if(ticked, [&](size_t i) { return i >= plan.items.size(); });
    if (progress != nullptr) {
        progress->setTotal(ticked.size());
    }
    auto finished = [&](const VaultPlanItem* moved) {
        if (progress != nullptr) {
            if (moved != nullptr) {
                progress->addItems(1);
                progress->addBytes(moved->physicalBytes);
            }
            progress->addDone();
        }
    };

    std::vector<size_t> passing;
    std::vector<VaultPlanItem> validated;
    bool endedEarly = false;
    for (size_t position = 0; position < ticked.size(); ++position) {
        size_t index = ticked[position];
        const VaultPlanItem& item = plan.items[index];
        if (stop.stop_requested()) {
            endedEarly = true;
            for (size_t rest = position; rest < ticked.size(); ++rest) {
                outcome.stayed.emplace_back(ticked[rest], std::nullopt);
            }
            break;
        }
        if (progress != nullptr) {
            progress->setCurrentPath(item.resolvedPath);
        }
        try {
            if (item.denied) {
                throw VaultDenied(*item.denied);
            }
            validated.push_back(validator(item, plan.planNonce));
            passing.push_back(index);
        } catch (const VaultDenied& denied) {
            outcome.notes.push_back(stayedNote(item.resolvedPath, denied.reason()));
            outcome.stayed.emplace_back(index, denied.reason());
            finished(nullptr);
        } catch (const CleanerError& error) {
            outcome.notes.push_back(item.resolvedPath + ": " + error.what() + " — left in place.");
            outcome.stayed.emplace_back(index, VaultDenyReason::unreadable);
            finished(nullptr);
        }
    }

    if (!passing.empty()) {
        std::vector<RecycleRequest> requests;
        requests.reserve(validated.size());
        for (const VaultPlanItem& item : validated) {
            requests.push_back({item.resolvedPath, item.identity(), item.physicalBytes});
        }
        if (writeAhead) {
            std::optional<std::string> unrecorded;
            try {
                writeAhead(requests);
            } catch (const std::exception& error) {
                unrecorded = error.what();
            }
            if (unrecorded) {
                outcome.notes.push_back(unrecordedMoveNote(*unrecorded));
                for (size_t index : passing) {
                    outcome.stayed.emplace_back(index, std::nullopt);
                    finished(nullptr);
                }
                return outcome;
            }
        }
        std::vector<RecycleAnswer> answers = recycle(requests);
        answers.resize(requests.size());
        for (size_t i = 0; i < requests.size(); ++i) {
            const VaultPlanItem& item = validated[i];
            RecycleAnswer& answer = answers[i];
            if (!answer.trashPath) {
                outcome.notes.push_back(answer.error.empty()
                                            ? item.resolvedPath +
                                                  ": the Trash did not take it — left in place."
                                            : answer.error);
                outcome.stayed.emplace_back(passing[i], std::nullopt);
                finished(nullptr);
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
                finished(nullptr);
                continue;
            }
            outcome.moved.push_back(
                {item.resolvedPath, *answer.trashPath, item.physicalBytes, item.identityToken});
            finished(&item);
        }
    }
    if (endedEarly) {
        outcome.notes.emplace_back(stoppedNote);
    }
    return outcome;
}

} // namespace sd
