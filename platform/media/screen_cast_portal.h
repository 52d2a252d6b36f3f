// The desktop's ScreenCast portal (org.freedesktop.portal.Desktop on the session bus), asked for
// one monitor: CreateSession, SelectSources, Start (each answered by its Request's Response
// signal), then OpenPipeWireRemote. What it hands back is a PipeWire connection and the node of
// the monitor's stream, read by the media plug-in's PipeWire screen source.
//
// The portal ends the cast when the session closes, which closing this object (or the process)
// does: it must outlive whatever reads the stream.
//
// Threading: open() blocks its caller while the portal (and perhaps the user, in a chooser)
// answers; the object is then only destroyed, from any one thread. No callbacks.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "nembra/error.h"

struct DBusConnection;

namespace nembra {

class ScreenCastPortal {
 public:
  // How open() failed, so that a caller choosing a source can tell a desktop without the portal
  // (another source may do) from a portal that said no (the user's answer stands).
  enum class Outcome { Started, Unavailable, Cancelled, Refused };

  struct Options {
    // Unset: $DBUS_SESSION_BUS_ADDRESS.
    std::string busAddress;
    // How long the portal may take to answer one step; Start waits for the user as well.
    int stepTimeoutMs = 10000;
    int startTimeoutMs = 120000;
  };

  static std::unique_ptr<ScreenCastPortal> open(const Options& options, Outcome& outcome,
                                                OptionalError& error);
  ~ScreenCastPortal();
  ScreenCastPortal(const ScreenCastPortal&) = delete;
  ScreenCastPortal& operator=(const ScreenCastPortal&) = delete;

  // The PipeWire connection's descriptor, handed over once: the caller owns what it takes
  // (-1 after the first call).
  int takePipeWireFd();
  uint32_t nodeId() const { return nodeId_; }
  // The monitor's size as the portal reported it; 0 when it did not say.
  int width() const { return width_; }
  int height() const { return height_; }

 private:
  ScreenCastPortal() = default;

  DBusConnection* connection_ = nullptr;
  std::string sessionHandle_;
  int pipeWireFd_ = -1;
  uint32_t nodeId_ = 0;
  int width_ = 0;
  int height_ = 0;
};

}  // namespace nembra
