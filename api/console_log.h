// The console of code that has no application object to log through (file helpers,
// reachability). A line goes to standard error unless the host redirects or mutes it; the
// application object's own log() is separate and honours enableDebugLogs.
//
// Threading: safe from any thread. The sink runs on the thread that logs and must not log.
#pragma once

#include <functional>
#include <string>

namespace nembra {

using ConsoleLogSink = std::function<void(const std::string& line)>;

// Hands |line| to the sink when logging is enabled. The default sink adds the newline unless the
// line already ends with one.
void consoleLog(const std::string& line);

// An empty sink restores standard error.
void setConsoleLogSink(ConsoleLogSink sink);
// On by default, as the platform console always is.
void setConsoleLogEnabled(bool enabled);
bool consoleLogEnabled();

}  // namespace nembra
