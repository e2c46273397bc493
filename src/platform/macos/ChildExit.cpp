#include "platform/ChildExit.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/event.h>
#include <unistd.h>

namespace sd::platform {

UniqueFd watchChildExit(pid_t pid) {
    // A kernel queue holding one exit filter for the child: the queue's descriptor polls as
    // readable once the event is pending.
    UniqueFd queue(::kqueue());
    if (!queue) {
        return {};
    }
    ::fcntl(queue.get(), F_SETFD, FD_CLOEXEC);
    struct kevent change;
    EV_SET(&change, static_cast<uintptr_t>(pid), EVFILT_PROC, EV_ADD | EV_ONESHOT, NOTE_EXIT, 0,
           nullptr);
    if (::kevent(queue.get(), &change, 1, nullptr, 0, nullptr) != 0) {
        // ESRCH: the child has already ended; a descriptor that is always readable says so.
        if (errno != ESRCH) {
            return {};
        }
        int ends[2];
        if (::pipe(ends) != 0) {
            return {};
        }
        ::fcntl(ends[0], F_SETFD, FD_CLOEXEC);
        ::close(ends[1]);
        return UniqueFd(ends[0]);
    }
    return queue;
}

} // namespace sd::platform
