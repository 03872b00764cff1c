// LD_PRELOAD shim: on non-blocking sockets, every other recv() answers
// "nothing yet" (EAGAIN), as a real connection does whenever data arrives a
// moment after the program looks. A program that files frames in one place
// and lets the library read in another misses messages under it; a program
// that sees every message does not. Blocking sockets are left alone: their
// callers do not expect EAGAIN.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>

extern "C" __attribute__((visibility("default"))) ssize_t recv(int fd, void* buf, size_t n,
                                                               int flags) {
  static auto real =
      reinterpret_cast<ssize_t (*)(int, void*, size_t, int)>(dlsym(RTLD_NEXT, "recv"));
  static bool skip = false;
  const int status = fcntl(fd, F_GETFL);
  if (status >= 0 && (status & O_NONBLOCK) && (skip = !skip)) {
    errno = EAGAIN;
    return -1;
  }
  return real(fd, buf, n, flags);
}
