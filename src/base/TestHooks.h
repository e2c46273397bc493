#pragma once

#include <functional>
#include <string>

namespace sd::testhooks {

// A seam for tests that need to change the tree at the exact moment between reading a
// directory's entry and opening it, which no second thread can hit reliably. Compiled only into
// builds configured with SPARROWDECK_TEST_HOOKS; elsewhere it is an empty inline call.
#ifdef SPARROWDECK_TEST_HOOKS
inline constexpr bool enabled = true;
void setBeforeOpenDirectory(std::function<void(const std::string& path)> hook);
void beforeOpenDirectory(const std::string& path);
// Between the duplicate comparer's last read and its re-check of every member, where a test
// changes a file that has already been hashed.
void setAfterHashing(std::function<void()> hook);
void afterHashing();
// After a cleaning service's scan has measured, before it decides whether a newer scan
// superseded it, where a test starts that newer scan.
void setBeforeScanResult(std::function<void()> hook);
void beforeScanResult();
// Half-way through writing a scan to the history, inside its transaction, where a test ends the
// process as a power cut would.
void setMidHistorySave(std::function<void()> hook);
void midHistorySave();
// After things moved to the Trash, before the journal's last write records where they went,
// where a test ends the process to prove the write-ahead record is enough to put them back.
void setBeforeJournalRecord(std::function<void()> hook);
void beforeJournalRecord();
// Lets a test reach the hooks of a separate process (the command line): SPARROWDECK_TEST_HOOK
// "killBeforeJournalRecord" ends the process with SIGKILL at that point.
void installFromEnvironment();
#else
inline constexpr bool enabled = false;
inline void beforeOpenDirectory(const std::string&) {}
inline void setAfterHashing(std::function<void()>) {}
inline void afterHashing() {}
inline void setBeforeScanResult(std::function<void()>) {}
inline void beforeScanResult() {}
inline void setMidHistorySave(std::function<void()>) {}
inline void midHistorySave() {}
inline void setBeforeJournalRecord(std::function<void()>) {}
inline void beforeJournalRecord() {}
inline void installFromEnvironment() {}
#endif

} // namespace sd::testhooks
