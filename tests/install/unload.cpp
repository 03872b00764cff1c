// Loads the installed library alone, opens a descriptor through its global
// socket, unloads it and checks that it is really gone: the loader no longer
// knows it, and the globals' destructors closed the descriptor.
//   unload <path of libTarnSDK.so.1>

#include <dlfcn.h>
#include <fcntl.h>

#include <cerrno>
#include <cstdio>

#include "net/Socket.h"  // for the layout of m_socket only: nothing is linked

static int fail(const char* what) {
  const char* why = dlerror();
  std::fprintf(stderr, "FAIL: %s%s%s\n", what, why ? ": " : "", why ? why : "");
  return 1;
}

int main(int argc, char** argv) {
  if (argc != 2) return fail("usage: unload <libTarnSDK.so.1>");
  void* lib = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (!lib) return fail("dlopen");
  auto* socket = static_cast<Socket*>(dlsym(lib, "m_socket"));
  // Socket::Create() called as what it is in the ABI: a function taking the
  // object's address.
  auto create = reinterpret_cast<bool (*)(Socket*)>(dlsym(lib, "_ZN6Socket6CreateEv"));
  if (!socket || !create) return fail("m_socket or Socket::Create() not exported");
  if (!create(socket) || fcntl(socket->m_sock, F_GETFD) == -1)
    return fail("Create() opened no descriptor");
  const int fd = socket->m_sock;
  if (dlclose(lib) != 0) return fail("dlclose");
  if (dlopen(argv[1], RTLD_NOW | RTLD_NOLOAD)) return fail("still loaded after dlclose");
  if (fcntl(fd, F_GETFD) != -1 || errno != EBADF)
    return fail("descriptor still open after unloading");
  std::printf("unloaded; descriptor %d closed\n", fd);
  return 0;
}
