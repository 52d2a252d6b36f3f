// Work that must run when a queue is destroyed, before anything of it goes: a process-wide
// object bound to a queue (the shared audio engine) stops the threads that post there, so that
// nothing is posted to a queue that is gone. The queue's destructor runs the actions.
//
// Threading: add/remove from any thread. The actions run on the thread destroying the queue;
// remove() of an action that is running waits for it to finish. Safe during static destruction:
// the registry itself is never destroyed.
#pragma once

#include <cstdint>
#include <functional>

#include "nembra/task_queue.h"

namespace nembra {

class QueueEnding {
 public:
  using Token = uint64_t;

  // Runs |action| once when |queue| is destroyed, unless removed first.
  static Token add(const TaskQueue& queue, std::function<void()> action);
  static void remove(Token token);
  // Runs and forgets the actions for |queue|. Every queue whose tasks may be posted by such an
  // object calls this first thing in its destructor.
  static void run(const TaskQueue& queue);
};

}  // namespace nembra
