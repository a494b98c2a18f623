// Linked into every program of the ThreadSanitizer build, and only there.
//
// clang 14's ThreadSanitizer treats every clone() as a fork, and when the child shares the parent's
// memory (CLONE_VM, as QProcess starts its programs) the child's bookkeeping overwrites the
// parent's and the runtime aborts on its own consistency check. This definition takes the place of
// the runtime's weak one, so clone() reaches the C library unseen, as it did before clang 14: the
// vfork-style child only calls exec.
#include <cstdarg>
#include <dlfcn.h>
#include <sys/types.h>

extern "C" int clone(int (*entry)(void *), void *stack, int flags, void *argument, ...) {
    va_list rest;
    va_start(rest, argument);
    pid_t *parentTid = va_arg(rest, pid_t *);
    void *tls = va_arg(rest, void *);
    pid_t *childTid = va_arg(rest, pid_t *);
    va_end(rest);
    using Clone = int (*)(int (*)(void *), void *, int, void *, ...);
    static const auto libcClone = reinterpret_cast<Clone>(dlsym(RTLD_NEXT, "clone"));
    return libcClone(entry, stack, flags, argument, parentTid, tls, childTid);
}
