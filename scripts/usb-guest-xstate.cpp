// Preloaded into the guest's kernel. Linux takes the extended registers of a traced process only whole, and
// on processors with tile registers that is more than the user-mode Linux of this series holds: it would end
// before its first program does. What it leaves out is set to what it was.
#include <cstdarg>
#include <cstring>
#include <dlfcn.h>
#include <elf.h>
#include <sys/ptrace.h>
#include <sys/uio.h>

extern "C" long ptrace(__ptrace_request request, ...) noexcept
{
    static long (*next)(int, int, void *, void *);
    if (!next)
        next = reinterpret_cast<decltype(next)>(dlsym(RTLD_NEXT, "ptrace"));
    static char area[65536]; // not on the small stacks of that kernel, one thread of which traces
    va_list rest;
    va_start(rest, request);
    const int pid = va_arg(rest, int);
    void *address = va_arg(rest, void *);
    void *data = va_arg(rest, void *);
    va_end(rest);
    if (request == PTRACE_SETREGSET && reinterpret_cast<size_t>(address) == NT_X86_XSTATE) {
        const auto *part = static_cast<iovec *>(data);
        iovec whole = {area, sizeof area};
        if (next(PTRACE_GETREGSET, pid, address, &whole) == 0 && whole.iov_len > part->iov_len) {
            std::memcpy(area, part->iov_base, part->iov_len);
            return next(request, pid, address, &whole);
        }
    }
    return next(request, pid, address, data);
}
