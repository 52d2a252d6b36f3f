// Child programs of the player benches (ffmpeg, ffplay, Xvfb), run with their own environment,
// and the CPU time they used.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace nembra::testing {

// User plus system time, in seconds.
double cpuSeconds(const rusage& usage);

bool onPath(const char* program);

// Starts |argv| with |extraEnv| added to this process's environment; its pid, or -1.
pid_t spawnChild(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv,
                 const std::string& stdoutPath = "/dev/null",
                 const std::string& stderrPath = "/dev/null");

// Runs to completion; its exit status (-1 when it did not run or exit) and resource use.
int runChild(const std::vector<std::string>& argv, const std::vector<std::string>& env,
             rusage& usage, const std::string& stderrPath = "/dev/null");

// The 60 s 1080p30 H.264 + AAC test file (testsrc2 and a 440 Hz tone, index at the front),
// made once and kept in the temporary directory between runs; empty when ffmpeg failed.
std::string playerTestClip();

}  // namespace nembra::testing
