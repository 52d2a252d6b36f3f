#include "platform/dispatch/thread_name.h"

#include <pthread.h>

namespace nembra {

void setCurrentThreadName(const std::string& name) {
  constexpr size_t kMax = 15;
  std::string shortName = name.size() > kMax ? name.substr(name.size() - kMax) : name;
  pthread_setname_np(pthread_self(), shortName.c_str());
}

}  // namespace nembra
