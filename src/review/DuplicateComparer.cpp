#include "review/DuplicateComparer.h"

#include "base/CleanerError.h"
#include "base/ParallelFor.h"
#include "base/Saturating.h"
#include "base/TestHooks.h"
#include "core/ByteFormat.h"
#include "core/CoreFileSystem.h"
#include "core/PathRules.h"
#include "platform/ContentReading.h"
#include "platform/FileSystemExtras.h"
#include "platform/Words.h"
#include "reclaim/VaultPolicy.h"
#include "reclaim/VaultService.h"
#include "review/ContentDigest.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <map>
#include <mutex>
#include <thread>
#include <tuple>

namespace sd {
namespace {

using Clock = std::chrono::steady_clock;

// Reading speeds assumed before a real one has been measured, and never assumed below.
constexpr double assumedRate = 400.0 * 1024 * 1024;
constexpr double slowestRate = 32.0 * 1024 * 1024;
constexpr double measureAfter = 0.05; // seconds
constexpr auto reportEvery = std::chrono::milliseconds(100);
constexpr size_t warningLimit = 20;

Clock::duration secondsToDuration(double seconds) {
    return std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(std::max(0.0, seconds)));
}

// The same object, unchanged since the walk recorded it: any write moves the change time.
bool unchanged(const ReviewCandidate& recorded, const struct stat& now) {
    return static_cast<std::uint64_t>(now.st_dev) == recorded.device &&
           static_cast<std::uint64_t>(now.st_ino) == recorded.inode && S_ISREG(now.st_mode) &&
           now.st_size >= 0 && static_cast<std::uint64_t>(now.st_size) == recorded.logicalSize &&
           platform::changedTime(now) == recorded.changed() &&
           platform::modifiedTime(now) == recorded.modified;
}

struct Member {
    ReviewCandidate file;
    std::vector<ReviewCandidate> sharing; // other names of the same storage
    std::optional<std::uint64_t> storageKey;
    std::optional<std::uint64_t> place; // where its first block lies, read in the first stage
    ContentDigest sample{};
    ContentDigest full{};
    bool failed = false;
    bool alone = false; // shown to differ from every other member
};

enum class Admission { pending, admitted, refused, aborted };

struct WorkUnit {
    std::uint64_t size = 0;
    std::vector<Member> members;
    Admission admission = Admission::pending;
    std::uint64_t memberCost = 0; // bytes the current stage reads for one member
    size_t remaining = 0;         // admitted members not yet read
};

std::uint64_t unitBytes(const WorkUnit& unit) {
    std::uint64_t bytes = 0;
    for (const Member& m : unit.members) {
        if (!m.failed) {
            bytes = saturatingAdd(bytes, m.file.physicalBytes);
        }
    }
    return bytes;
}

// Folds members that are other names of the same storage into the first of them (in path order)
// and counts each extra name.
template <typename Key>
void collapse(std::vector<Member>& members, Key keyOf, std::uint64_t& counter) {
    std::map<std::pair<std::uint64_t, std::uint64_t>, size_t> first;
    std::vector<Member> kept;
    kept.reserve(members.size());
    for (Member& m : members) {
        std::optional<std::uint64_t> key = keyOf(m);
        if (!key) {
            kept.push_back(std::move(m));
            continue;
        }
        auto [slot, fresh] = first.try_emplace({m.file.device, *key}, kept.size());
        if (fresh) {
            kept.push_back(std::move(m));
            continue;
        }
        Member& primary = kept[slot->second];
        primary.sharing.push_back(std::move(m.file));
        for (ReviewCandidate& other : m.sharing) {
            primary.sharing.push_back(std::move(other));
        }
        counter = saturatingAdd(counter, 1);
    }
    members = std::move(kept);
}

// Splits a unit's surviving members by a digest; groups of one are done.
template <typename DigestOf> std::vector<WorkUnit> splitBy(WorkUnit& unit, DigestOf digestOf) {
    std::map<ContentDigest, std::vector<Member>> parts;
    for (Member& m : unit.members) {
        if (!m.failed && !m.alone) {
            parts[digestOf(m)].push_back(std::move(m));
        }
    }
    std::vector<WorkUnit> out;
    for (auto& [digest, members] : parts) {
        if (members.size() >= 2) {
            WorkUnit next;
            next.size = unit.size;
            next.members = std::move(members);
            out.push_back(std::move(next));
        }
    }
    return out;
}

class Comparison {
public:
    Comparison(const DuplicateComparer& comparer, DuplicateReport& report)
        : comparer_(comparer), options_(comparer.options), report_(report), started_(Clock::now()) {
        // At least four readers, so a cold disk always has requests to order; at most one per
        // core beyond that, since hashing is the processor's work.
        threads_ = options_.hashThreads != 0 ? options_.hashThreads
                                             : std::clamp(hardwareWorkers(), 4u, 16u);
        bufferBytes_ =
            std::max<size_t>(contentChunkBytes, static_cast<size_t>(2 * options_.sampleBytes));
    }

    std::vector<WorkUnit> run(std::vector<WorkUnit> units) {
        const Clock::time_point end = started_ + secondsToDuration(options_.compareBudget);
        const Clock::time_point halfway = started_ + secondsToDuration(options_.compareBudget / 2);

        for (WorkUnit& unit : units) {
            unit.memberCost = std::min(unit.size, 2 * options_.sampleBytes);
        }
        runStage(units, halfway, Reading::memberByMember,
                 [this](Worker& w, WorkUnit& unit, Member* m) { return quickRead(w, unit, *m); });
        std::vector<WorkUnit> paired;
        for (WorkUnit& unit : units) {
            if (!settle(unit)) {
                continue;
            }
            collapse(
                unit.members, [](const Member& m) { return m.storageKey; },
                report_.cloneCopiesIgnored);
            for (WorkUnit& part : splitBy(unit, [](const Member& m) { return m.sample; })) {
                part.memberCost = part.size;
                paired.push_back(std::move(part));
            }
        }

        // Small units are read side by side and hashed once: the digest of equal files is the
        // digest of any one of them, and a decoy stops being read where it first differs.
        runStage(paired, end, Reading::sideBySide, [this](Worker& w, WorkUnit& unit, Member* m) {
            return m != nullptr ? fullRead(w, unit, *m) : sideBySideRead(w, unit);
        });
        std::vector<WorkUnit> confirmed;
        for (WorkUnit& unit : paired) {
            if (!settle(unit)) {
                continue;
            }
            for (WorkUnit& group : splitBy(unit, [](const Member& m) { return m.full; })) {
                confirmed.push_back(std::move(group));
            }
        }
        return confirmed;
    }

    void warn(std::string text) {
        std::lock_guard guard(lock_);
        if (report_.warnings.size() < warningLimit) {
            report_.warnings.push_back(std::move(text));
        }
    }

private:
    struct Worker {
        explicit Worker(size_t bufferBytes) : buffer(bufferBytes) {}
        std::vector<unsigned char> buffer;
        std::vector<unsigned char> second; // the other file of a pair
        Sha256 sha;
    };
    enum class Outcome { done, timedOut, cancelled };
    // Whether a stage reads the members of a small unit as one task, side by side. Each open
    // file costs a descriptor, so larger units are read member by member.
    enum class Reading { memberByMember, sideBySide };
    static constexpr size_t sideBySideLimit = 16;

    // After a stage: a unit that was not compared in time adds its bytes to what could not be
    // confirmed. False for such a unit.
    bool settle(WorkUnit& unit) {
        if (unit.admission == Admission::refused || unit.admission == Admission::aborted) {
            report_.unconfirmedBytes = saturatingAdd(report_.unconfirmedBytes, unitBytes(unit));
            report_.truncated = true;
            return false;
        }
        return true;
    }

    double rate() const {
        double elapsed = std::chrono::duration<double>(Clock::now() - started_).count();
        double measured =
            elapsed > measureAfter
                ? static_cast<double>(bytesRead_.load(std::memory_order_relaxed)) / elapsed
                : assumedRate;
        return std::max(measured, slowestRate);
    }

    // Decides once per unit, at its first member, whether it can be finished before `deadline`
    // at the current reading rate, counting what earlier units still have to read.
    bool admit(WorkUnit& unit, Clock::time_point deadline) {
        std::lock_guard guard(lock_);
        if (unit.admission == Admission::pending) {
            std::uint64_t cost = saturatingMul(unit.memberCost, unit.members.size());
            double projected = static_cast<double>(saturatingAdd(outstanding_, cost)) / rate();
            if (Clock::now() + secondsToDuration(projected) <= deadline) {
                unit.admission = Admission::admitted;
                unit.remaining = unit.members.size();
                outstanding_ = saturatingAdd(outstanding_, cost);
            } else {
                unit.admission = Admission::refused;
            }
        }
        return unit.admission == Admission::admitted;
    }

    // Takes `members` of the unit's admitted bytes off what is still to be read.
    void release(WorkUnit& unit, size_t members) {
        members = std::min(members, unit.remaining);
        unit.remaining -= members;
        std::uint64_t bytes = saturatingMul(unit.memberCost, members);
        outstanding_ = outstanding_ > bytes ? outstanding_ - bytes : 0;
    }

    void finishMembers(WorkUnit& unit, size_t count, const std::string& path) {
        std::lock_guard guard(lock_);
        release(unit, count);
        itemsSeen_ += count;
        if (OperationProgress* progress = comparer_.progress) {
            progress->addItems(count);
            Clock::time_point now = Clock::now();
            if (now - lastReport_ >= reportEvery) {
                lastReport_ = now;
                double elapsed = std::chrono::duration<double>(now - started_).count();
                progress->setCurrentPath(path);
                progress->setFraction(options_.compareBudget > 0
                                          ? std::min(1.0, elapsed / options_.compareBudget)
                                          : 1.0);
            }
        }
    }

    // Opens a member for reading and proves it is still the file the walk saw.
    UniqueFd openMember(Member& m) {
        std::optional<ParentHandle> parent;
        try {
            parent = openParent(m.file.path);
        } catch (const CleanerError& error) {
            warn(std::string(error.what()) + " — left out of the comparison.");
            return UniqueFd();
        }
        if (!parent) {
            return UniqueFd(); // gone: nothing to report
        }
        UniqueFd fd = platform::openContent(parent->fd.get(), parent->name.c_str());
        if (!fd) {
            if (errno != ENOENT) {
                warn("Couldn’t read " + m.file.path + ": " + errorText(errno) +
                     " — left out of the comparison.");
            }
            return fd;
        }
        struct stat st {};
        if (::fstat(fd.get(), &st) != 0 || !unchanged(m.file, st)) {
            warn(m.file.path + " changed while it was being compared — left out.");
            return UniqueFd();
        }
        return fd;
    }

    Outcome quickRead(Worker& w, WorkUnit&, Member& m) {
        UniqueFd fd = openMember(m);
        if (!fd) {
            m.failed = true;
            return Outcome::done;
        }
        if (!m.storageKey) {
            struct stat st {};
            if (::fstat(fd.get(), &st) == 0) {
                m.storageKey =
                    m.file.cloneID ? m.file.cloneID : platform::sharedStorageKey(fd.get(), st);
            }
        }
        m.place = platform::firstPhysicalOffset(fd.get());
        std::optional<ContentDigest> sample = sampleDigest(
            fd.get(), m.file.logicalSize, options_.sampleBytes, w.buffer, w.sha, &bytesRead_);
        if (!sample) {
            warn("Couldn’t read " + m.file.path + " to the end — left out of the comparison.");
            m.failed = true;
            return Outcome::done;
        }
        m.sample = *sample;
        std::lock_guard guard(lock_);
        report_.comparedFiles = saturatingAdd(report_.comparedFiles, 1);
        return Outcome::done;
    }

    Outcome fullRead(Worker& w, WorkUnit& unit, Member& m) {
        UniqueFd fd = openMember(m);
        if (!fd) {
            m.failed = true;
            return Outcome::done;
        }
        platform::adviseSequential(fd.get());
        FullDigest digest = fullDigest(fd.get(), unit.size, stageDeadline_, comparer_.stop,
                                       w.buffer, w.sha, &bytesRead_);
        if (digest.cancelled) {
            return Outcome::cancelled;
        }
        if (digest.timedOut) {
            return Outcome::timedOut;
        }
        struct stat st {};
        if (!digest.digest || ::fstat(fd.get(), &st) != 0 || !unchanged(m.file, st)) {
            warn(m.file.path + " changed while it was being compared — left out.");
            m.failed = true;
            return Outcome::done;
        }
        m.full = *digest.digest;
        return Outcome::done;
    }

    // All members of a small unit, read side by side against the first: the files equal to it
    // get its digest, the others are hashed on their own only when two or more of them are left.
    Outcome sideBySideRead(Worker& w, WorkUnit& unit) {
        std::vector<UniqueFd> open;
        std::vector<Member*> members;
        for (Member& m : unit.members) {
            UniqueFd fd = openMember(m);
            m.failed = !fd;
            if (fd) {
                open.push_back(std::move(fd));
                members.push_back(&m);
            }
        }
        if (members.size() < 2) {
            return Outcome::done;
        }
        std::vector<int> fds;
        for (const UniqueFd& fd : open) {
            platform::adviseSequential(fd.get());
            fds.push_back(fd.get());
        }
        w.second.resize(contentChunkBytes);
        SideBySideReading read = readSideBySide(fds, unit.size, stageDeadline_, comparer_.stop,
                                                w.buffer, w.second, w.sha, &bytesRead_);
        if (read.cancelled) {
            return Outcome::cancelled;
        }
        if (read.timedOut) {
            return Outcome::timedOut;
        }
        std::vector<size_t> others;
        for (size_t i = 0; i < members.size(); ++i) {
            Member& m = *members[i];
            if (i == 0 && read.files[0] == SideBySide::differs) {
                m.alone = true; // every other file differs from it somewhere
            } else if (read.files[i] == SideBySide::unreadable) {
                warn("Couldn’t read " + m.file.path + " to the end — left out of the comparison.");
                m.failed = true;
            } else if (read.files[i] == SideBySide::matched) {
                m.full = *read.digest;
            } else {
                others.push_back(i);
            }
        }
        if (others.size() == 1) {
            members[others[0]]->alone = true; // it differs from every file that was read whole
        } else {
            for (size_t i : others) {
                Member& m = *members[i];
                FullDigest digest = fullDigest(fds[i], unit.size, stageDeadline_, comparer_.stop,
                                               w.buffer, w.sha, &bytesRead_);
                if (digest.cancelled) {
                    return Outcome::cancelled;
                }
                if (digest.timedOut) {
                    return Outcome::timedOut;
                }
                if (!digest.digest) {
                    warn("Couldn’t read " + m.file.path +
                         " to the end — left out of the comparison.");
                    m.failed = true;
                } else {
                    m.full = *digest.digest;
                }
            }
        }
        for (size_t i = 0; i < members.size(); ++i) {
            struct stat st {};
            Member& m = *members[i];
            if (!m.failed && (::fstat(fds[i], &st) != 0 || !unchanged(m.file, st))) {
                warn(m.file.path + " changed while it was being compared — left out.");
                m.failed = true;
            }
        }
        return Outcome::done;
    }

    // Reads every member of every unit across units in the order a disk holds them: by the place
    // of the first block where the first stage learned it, else by inode, which on most file
    // systems follows the order files were laid down. Several threads read at once, so a cold
    // disk has several requests to order. `read` gets a null member for a unit read side by side
    // as one task.
    template <typename Read>
    void runStage(std::vector<WorkUnit>& units, Clock::time_point deadline, Reading reading,
                  Read read) {
        stageDeadline_ = deadline;
        constexpr size_t wholeUnit = static_cast<size_t>(-1);
        struct Task {
            std::uint64_t device;
            bool unplaced; // placed files first, by place; the rest by inode
            std::uint64_t order;
            size_t unit;
            size_t member;
        };
        auto taskOf = [](const Member& m, size_t unit, size_t member) {
            return Task{m.file.device, !m.place, m.place.value_or(m.file.inode), unit, member};
        };
        std::vector<Task> tasks;
        for (size_t u = 0; u < units.size(); ++u) {
            if (reading == Reading::sideBySide && units[u].members.size() <= sideBySideLimit) {
                tasks.push_back(taskOf(units[u].members[0], u, wholeUnit));
                continue;
            }
            for (size_t i = 0; i < units[u].members.size(); ++i) {
                tasks.push_back(taskOf(units[u].members[i], u, i));
            }
        }
        std::sort(tasks.begin(), tasks.end(), [](const Task& a, const Task& b) {
            return std::tie(a.device, a.unplaced, a.order, a.unit, a.member) <
                   std::tie(b.device, b.unplaced, b.order, b.unit, b.member);
        });
        parallelForEach(
            tasks.size(), threads_, comparer_.stop, [&] { return Worker(bufferBytes_); },
            [&](Worker& worker, size_t index) {
                WorkUnit& unit = units[tasks[index].unit];
                const bool whole = tasks[index].member == wholeUnit;
                Member* member = whole ? nullptr : &unit.members[tasks[index].member];
                const size_t count = whole ? unit.members.size() : 1;
                const std::string& path = (whole ? unit.members[0] : *member).file.path;
                if (!admit(unit, deadline)) {
                    return;
                }
                if (Clock::now() >= deadline) {
                    abort(unit);
                    finishMembers(unit, count, path);
                    return;
                }
                Outcome outcome = read(worker, unit, member);
                if (outcome == Outcome::cancelled) {
                    throw CleanerError::cancelled();
                }
                if (outcome == Outcome::timedOut) {
                    abort(unit);
                }
                finishMembers(unit, count, path);
            });
        throwIfStopped(comparer_.stop);
    }

    // The unit cannot be finished in time: none of its members will be read.
    void abort(WorkUnit& unit) {
        std::lock_guard guard(lock_);
        unit.admission = Admission::aborted;
        release(unit, unit.remaining);
    }

    const DuplicateComparer& comparer_;
    const DuplicateOptions& options_;
    DuplicateReport& report_;
    const Clock::time_point started_;
    Clock::time_point stageDeadline_;
    unsigned threads_ = 1;
    size_t bufferBytes_ = contentChunkBytes;
    std::mutex lock_;
    std::atomic<std::uint64_t> bytesRead_{0};
    std::uint64_t outstanding_ = 0;
    std::uint64_t itemsSeen_ = 0;
    Clock::time_point lastReport_{};
};

// The size buckets of the candidates, with hard links and known clones folded together; a
// bucket left with one member is done.
std::vector<WorkUnit> bucket(const std::vector<ReviewCandidate>& candidates,
                             const DuplicateOptions& options, DuplicateReport& report) {
    std::vector<const ReviewCandidate*> files;
    for (const ReviewCandidate& c : candidates) {
        if (!c.isPackage && c.logicalSize >= options.minimumBytes) {
            files.push_back(&c);
        }
    }
    std::sort(files.begin(), files.end(), [](const ReviewCandidate* a, const ReviewCandidate* b) {
        return std::tie(a->logicalSize, a->path) < std::tie(b->logicalSize, b->path);
    });
    std::vector<WorkUnit> units;
    for (size_t i = 0; i < files.size();) {
        size_t j = i + 1;
        while (j < files.size() && files[j]->logicalSize == files[i]->logicalSize) {
            ++j;
        }
        if (j - i >= 2) {
            WorkUnit unit;
            unit.size = files[i]->logicalSize;
            for (size_t k = i; k < j; ++k) {
                unit.members.push_back(Member{*files[k], {}, std::nullopt, {}, {}, false, false});
            }
            collapse(
                unit.members, [](const Member& m) { return std::optional(m.file.inode); },
                report.hardLinksIgnored);
            collapse(
                unit.members, [](const Member& m) { return m.file.cloneID; },
                report.cloneCopiesIgnored);
            for (Member& m : unit.members) {
                m.storageKey = m.file.cloneID;
            }
            if (unit.members.size() >= 2) {
                units.push_back(std::move(unit));
            }
        }
        i = j;
    }
    return units;
}

// Re-reads every name of a confirmed group: anything that changed since it was hashed leaves it.
void recheck(WorkUnit& unit, Comparison& comparison) {
    auto stillSame = [&](const ReviewCandidate& file) {
        try {
            std::optional<ParentHandle> parent = openParent(file.path);
            std::optional<struct stat> st;
            if (parent) {
                st = statEntry(parent->fd.get(), parent->name.c_str(), file.path);
            }
            if (st && unchanged(file, *st)) {
                return true;
            }
        } catch (const CleanerError&) {
        }
        comparison.warn(file.path + " changed while it was being compared — left out.");
        return false;
    };
    for (Member& m : unit.members) {
        m.failed = !stillSame(m.file);
        std::erase_if(m.sharing, [&](const ReviewCandidate& other) { return !stillSame(other); });
    }
    std::erase_if(unit.members, [](const Member& m) { return m.failed; });
}

bool inOwnFolders(const std::string& foldedPath, const std::string& foldedHome) {
    for (std::string_view folder : scope::ownFolders()) {
        if (isInside(foldedPath, foldedHome + "/" + foldPath(folder))) {
            return true;
        }
    }
    return false;
}

} // namespace

DuplicateCandidates collectDuplicateCandidates(const DuplicateScope& scope,
                                               const DuplicateOptions& options,
                                               const std::stop_token& stop,
                                               OperationProgress* progress) {
    DuplicateCandidates candidates;
    candidates.scope = scope;
    candidates.started = std::chrono::system_clock::now();
    ReviewWalkOptions walk = duplicateWalkOptions(scope.root, scope.home);
    walk.minimumBytes = options.minimumBytes;
    walk.budget = options.walkBudget;
    candidates.walk = walkForReview(walk, stop, progress);
    if (candidates.walk.cancelled) {
        throw CleanerError::cancelled();
    }
    return candidates;
}

DuplicateReport DuplicateComparer::compare() const {
    const auto compareStarted = std::chrono::system_clock::now();
    DuplicateReport report;
    report.scope = candidates.scope;
    report.scannedCount = candidates.walk.nodeCount;
    report.datalessSkipped = candidates.walk.datalessSkipped;
    report.truncated = candidates.walk.truncated;
    report.warnings = candidates.walk.warnings;
    throwIfStopped(stop);
    if (progress != nullptr) {
        progress->setPhase(reviewStage::comparing);
        progress->setItems(0);
    }

    Comparison comparison(*this, report);
    std::vector<WorkUnit> confirmed =
        comparison.run(bucket(candidates.walk.candidates, options, report));
    testhooks::afterHashing();
    for (WorkUnit& unit : confirmed) {
        throwIfStopped(stop);
        recheck(unit, comparison);
        if (unit.members.size() < 2) {
            continue;
        }
        DuplicateGroup group;
        group.id = hexDigest(unit.members.front().full);
        group.size = unit.size;
        for (const Member& m : unit.members) {
            DuplicateFile file;
            file.path = m.file.path;
            for (const ReviewCandidate& other : m.sharing) {
                file.sharedWith.push_back(other.path);
            }
            std::sort(file.sharedWith.begin(), file.sharedWith.end());
            file.physicalBytes = m.file.physicalBytes;
            file.device = m.file.device;
            file.inode = m.file.inode;
            file.changedSec = m.file.changedSec;
            file.changedNsec = m.file.changedNsec;
            file.born = m.file.born;
            group.files.push_back(std::move(file));
        }
        std::sort(group.files.begin(), group.files.end(),
                  [](const DuplicateFile& a, const DuplicateFile& b) { return a.path < b.path; });
        group.suggestedKeep = suggestKeep(group.files, candidates.scope.home);
        report.groups.push_back(std::move(group));
    }

    std::vector<std::pair<std::uint64_t, size_t>> order;
    for (size_t i = 0; i < report.groups.size(); ++i) {
        order.emplace_back(reclaimableBytes(report.groups[i]), i);
    }
    std::sort(order.begin(), order.end(), [&](const auto& a, const auto& b) {
        if (a.first != b.first) {
            return a.first > b.first;
        }
        return report.groups[a.second].id < report.groups[b.second].id;
    });
    std::vector<DuplicateGroup> ordered;
    for (size_t k = 0; k < order.size() && k < options.maximumGroups; ++k) {
        ordered.push_back(std::move(report.groups[order[k].second]));
    }
    if (order.size() > options.maximumGroups) {
        report.warnings.push_back("Showing the " + formatCount(options.maximumGroups) +
                                  " groups that give back the most; " +
                                  formatCount(order.size() - options.maximumGroups) +
                                  " smaller ones are not listed.");
    }
    report.groups = std::move(ordered);
    // Candidates assembled by hand carry no start; the comparison's own start stands in.
    auto begun = candidates.started == std::chrono::system_clock::time_point{} ? compareStarted
                                                                               : candidates.started;
    auto elapsed = std::chrono::system_clock::now() - begun;
    report.durationMs = static_cast<std::uint64_t>(std::max<std::int64_t>(
        0, std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count()));
    return report;
}

std::string suggestKeep(const std::vector<DuplicateFile>& files, const std::string& home) {
    const std::string foldedHome = foldPath(home);
    const DuplicateFile* best = &files.front();
    bool bestOwn = inOwnFolders(foldPath(best->path), foldedHome);
    for (size_t i = 1; i < files.size(); ++i) {
        const DuplicateFile& next = files[i];
        bool own = inOwnFolders(foldPath(next.path), foldedHome);
        bool better = false;
        if (own != bestOwn) {
            better = own;
        } else if (next.born != best->born) {
            better = next.born < best->born;
        } else if (next.path.size() != best->path.size()) {
            better = next.path.size() < best->path.size();
        } else {
            better = next.path < best->path;
        }
        if (better) {
            best = &next;
            bestOwn = own;
        }
    }
    return best->path;
}

std::vector<const DuplicateFile*> removableCopies(const DuplicateGroup& group) {
    std::vector<const DuplicateFile*> out;
    for (const DuplicateFile& file : group.files) {
        if (file.path != group.suggestedKeep && file.sharedWith.empty()) {
            out.push_back(&file);
        }
    }
    return out;
}

std::uint64_t reclaimableBytes(const DuplicateGroup& group) {
    std::uint64_t total = 0;
    for (const DuplicateFile* file : removableCopies(group)) {
        total = saturatingAdd(total, file->physicalBytes);
    }
    return total;
}

std::string duplicateFileNote(const DuplicateGroup& group, const DuplicateFile& file,
                              const VaultPolicy& policy) {
    if (file.path == group.suggestedKeep) {
        return std::string(duplicateText::keptCopy);
    }
    if (!file.sharedWith.empty()) {
        return std::string(duplicateText::sharedCopy);
    }
    if (std::optional<VaultDenyReason> verdict = policy.verdict(foldPath(file.path))) {
        if (*verdict == VaultDenyReason::protectedUserDir ||
            *verdict == VaultDenyReason::cloudStorage || *verdict == VaultDenyReason::systemPath) {
            return std::string(duplicateText::protectedCopy);
        }
    }
    if (enclosingRepository(file.path)) {
        return std::string(duplicateText::gitCopy);
    }
    return {};
}

std::vector<std::string> duplicateReportNotes(const DuplicateReport& report) {
    std::vector<std::string> notes;
    if (report.truncated) {
        notes.emplace_back(duplicateText::timeLimit);
    }
    if (report.unconfirmedBytes > 0) {
        notes.push_back("Up to " + formatBytes(report.unconfirmedBytes) +
                        " of possible copies couldn’t be compared byte for byte in time, so they "
                        "aren’t listed.");
    }
    if (report.cloneCopiesIgnored > 0) {
        std::uint64_t n = report.cloneCopiesIgnored;
        notes.push_back("Left out " + formatCount(n) + (n == 1 ? " clone (" : " clones (") +
                        std::string(platform::cloneCopiesName()) +
                        "). Clones share their space with the original, so removing one would "
                        "free nothing — they aren’t counted.");
    }
    notes.insert(notes.end(), report.warnings.begin(), report.warnings.end());
    return notes;
}

} // namespace sd
