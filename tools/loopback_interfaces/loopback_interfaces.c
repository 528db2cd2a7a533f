/* Preloaded into the development server on machines that should serve only themselves.

   The server ignores loopback interfaces when it collects addresses for media, regardless of its
   configuration. Hiding the flag that marks them makes 127.0.0.1 an address like any other;
   the configuration then allows that one address and no other. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <string.h>

__attribute__((visibility("default"))) int getifaddrs(struct ifaddrs** list) {
  /* Looked up at each call, which needs no state: there are only a few calls per peer. */
  void* next = dlsym(RTLD_NEXT, "getifaddrs");
  int (*real)(struct ifaddrs**);
  if (next == NULL) {
    errno = ENOSYS;
    return -1;
  }
  memcpy(&real, &next, sizeof real); /* ISO C has no conversion from object to function pointers */
  const int result = real(list);
  if (result == 0) {
    for (struct ifaddrs* entry = *list; entry != NULL; entry = entry->ifa_next) {
      entry->ifa_flags &= ~(unsigned)IFF_LOOPBACK;
    }
  }
  return result;
}
