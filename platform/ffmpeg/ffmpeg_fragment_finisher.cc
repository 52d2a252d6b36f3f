#include "platform/ffmpeg/ffmpeg_fragment_finisher.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <vector>

namespace nembra {

namespace {

using Bytes = std::vector<uint8_t>;

uint32_t read32(const uint8_t* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}
uint64_t read64(const uint8_t* p) { return (uint64_t{read32(p)} << 32) | read32(p + 4); }
void put32(Bytes& out, uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(v >> shift));
}
void put64(Bytes& out, uint64_t v) {
  put32(out, static_cast<uint32_t>(v >> 32));
  put32(out, static_cast<uint32_t>(v));
}
void set32(Bytes& out, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) out[at + i] = static_cast<uint8_t>(v >> (24 - 8 * i));
}
void set64(Bytes& out, size_t at, uint64_t v) {
  set32(out, at, static_cast<uint32_t>(v >> 32));
  set32(out, at + 4, static_cast<uint32_t>(v));
}

// A box of the index: the containers on the way to the sample tables are opened, the rest is
// kept as it was.
struct Box {
  std::string type;
  Bytes payload;
  std::vector<Box> children;
  bool container = false;

  Box* child(const std::string& name) {
    for (Box& box : children) {
      if (box.type == name) return &box;
    }
    return nullptr;
  }
  void remove(const std::string& name) {
    children.erase(std::remove_if(children.begin(), children.end(),
                                  [&](const Box& box) { return box.type == name; }),
                   children.end());
  }
};

bool isContainer(const std::string& type) {
  return type == "moov" || type == "trak" || type == "mdia" || type == "minf" || type == "stbl" ||
         type == "mvex";
}

bool parseBoxes(const uint8_t* data, size_t size, std::vector<Box>& out) {
  for (size_t at = 0; at < size;) {
    if (size - at < 8) return false;
    uint64_t boxSize = read32(data + at);
    size_t header = 8;
    if (boxSize == 1) {
      if (size - at < 16) return false;
      boxSize = read64(data + at + 8);
      header = 16;
    } else if (boxSize == 0) {
      boxSize = size - at;
    }
    if (boxSize < header || boxSize > size - at) return false;
    Box box;
    box.type.assign(reinterpret_cast<const char*>(data + at + 4), 4);
    box.container = isContainer(box.type);
    if (box.container) {
      if (!parseBoxes(data + at + header, boxSize - header, box.children)) return false;
    } else {
      box.payload.assign(data + at + header, data + at + boxSize);
    }
    out.push_back(std::move(box));
    at += boxSize;
  }
  return true;
}

void serialize(const Box& box, Bytes& out) {
  const size_t start = out.size();
  put32(out, 0);
  out.insert(out.end(), box.type.begin(), box.type.end());
  if (box.container) {
    for (const Box& child : box.children) serialize(child, out);
  } else {
    out.insert(out.end(), box.payload.begin(), box.payload.end());
  }
  set32(out, start, static_cast<uint32_t>(out.size() - start));
}

Box leaf(const std::string& type, Bytes payload) {
  Box box;
  box.type = type;
  box.payload = std::move(payload);
  return box;
}

struct Track {
  uint32_t id = 0;
  uint32_t timescale = 0;
  uint32_t defaultDuration = 0, defaultSize = 0, defaultFlags = 0;
  std::vector<uint32_t> sizes, durations;
  std::vector<int32_t> compositionOffsets;
  std::vector<uint32_t> syncSamples;                  // numbered from 1
  std::vector<std::pair<uint64_t, uint32_t>> chunks;  // offset, samples
  std::optional<uint64_t> firstTime;
  uint64_t nextTime = 0;
};

constexpr uint32_t kNonSync = 0x00010000;

struct TopBox {
  std::string type;
  uint64_t offset = 0, size = 0;
};

// The samples of one moof at |offset| are added to |tracks|; false when any of them lies past
// |end| (the fragment was cut) or the box makes no sense.
bool addFragment(const Bytes& moof, uint64_t offset, uint64_t end,
                 std::map<uint32_t, Track>& tracks) {
  std::vector<Box> boxes;
  if (!parseBoxes(moof.data(), moof.size(), boxes)) return false;
  for (const Box& traf : boxes) {
    if (traf.type != "traf") continue;
    std::vector<Box> parts;
    if (!parseBoxes(traf.payload.data(), traf.payload.size(), parts)) return false;
    Track* track = nullptr;
    uint64_t base = offset;
    uint32_t duration = 0, size = 0, flags = 0;
    std::optional<uint64_t> next;
    for (const Box& part : parts) {
      const Bytes& p = part.payload;
      if (part.type == "tfhd") {
        if (p.size() < 8) return false;
        const uint32_t tf = read32(p.data()) & 0xFFFFFF;
        auto found = tracks.find(read32(p.data() + 4));
        if (found == tracks.end()) return false;
        track = &found->second;
        duration = track->defaultDuration;
        size = track->defaultSize;
        flags = track->defaultFlags;
        size_t at = 8;
        auto field = [&](uint32_t bit, size_t width, auto apply) {
          if (!(tf & bit)) return true;
          if (p.size() < at + width) return false;
          apply(at);
          at += width;
          return true;
        };
        if (!field(0x1, 8, [&](size_t a) { base = read64(p.data() + a); }) ||
            !field(0x2, 4, [](size_t) {}) ||
            !field(0x8, 4, [&](size_t a) { duration = read32(p.data() + a); }) ||
            !field(0x10, 4, [&](size_t a) { size = read32(p.data() + a); }) ||
            !field(0x20, 4, [&](size_t a) { flags = read32(p.data() + a); })) {
          return false;
        }
      } else if (part.type == "tfdt" && track) {
        if (p.size() < 8) return false;
        const uint64_t time =
            p[0] == 1 && p.size() >= 12 ? read64(p.data() + 4) : read32(p.data() + 4);
        if (!track->firstTime) {
          track->firstTime = time;
          track->nextTime = time;
        } else if (time > track->nextTime && !track->durations.empty()) {
          // A gap between fragments stays a gap: the last sample lasts until the next.
          track->durations.back() += static_cast<uint32_t>(time - track->nextTime);
          track->nextTime = time;
        }
      } else if (part.type == "trun" && track) {
        if (p.size() < 8) return false;
        const uint32_t tr = read32(p.data()) & 0xFFFFFF;
        const uint32_t count = read32(p.data() + 4);
        size_t at = 8;
        uint64_t data = next.value_or(base);
        if (tr & 0x1) {
          if (p.size() < at + 4) return false;
          data = base + static_cast<int32_t>(read32(p.data() + at));
          at += 4;
        }
        std::optional<uint32_t> firstFlags;
        if (tr & 0x4) {
          if (p.size() < at + 4) return false;
          firstFlags = read32(p.data() + at);
          at += 4;
        }
        const size_t each =
            4 * (((tr >> 8) & 1) + ((tr >> 9) & 1) + ((tr >> 10) & 1) + ((tr >> 11) & 1));
        if (p.size() < at + each * count) return false;
        // Every sample holds at least a byte of the file: a count past the bytes left is a
        // corrupt run, not millions of empty samples to list.
        if (data > end || count > end - data) return false;
        if (!track->firstTime) track->firstTime = track->nextTime = 0;
        if (count > 0) track->chunks.emplace_back(data, count);
        for (uint32_t i = 0; i < count; ++i) {
          uint32_t d = duration, s = size, f = i == 0 && firstFlags ? *firstFlags : flags;
          int32_t cto = 0;
          if (tr & 0x100) d = read32(p.data() + at), at += 4;
          if (tr & 0x200) s = read32(p.data() + at), at += 4;
          if (tr & 0x400) f = read32(p.data() + at), at += 4;
          if (tr & 0x800) cto = static_cast<int32_t>(read32(p.data() + at)), at += 4;
          if (data + s > end) return false;
          data += s;
          track->sizes.push_back(s);
          track->durations.push_back(d);
          track->compositionOffsets.push_back(cto);
          if (!(f & kNonSync))
            track->syncSamples.push_back(static_cast<uint32_t>(track->sizes.size()));
          track->nextTime += d;
        }
        next = data;
      }
    }
  }
  return true;
}

// The sample tables of |track| in place of the fragmented file's empty ones.
void rebuildTables(Box& stbl, const Track& track) {
  Box* stsd = stbl.child("stsd");
  std::vector<Box> tables;
  if (stsd) tables.push_back(*stsd);
  const size_t n = track.sizes.size();
  Bytes stts{0, 0, 0, 0};
  std::vector<std::pair<uint32_t, uint32_t>> runs;
  for (uint32_t d : track.durations) {
    if (!runs.empty() && runs.back().second == d)
      ++runs.back().first;
    else
      runs.emplace_back(1, d);
  }
  put32(stts, static_cast<uint32_t>(runs.size()));
  for (auto [count, d] : runs) put32(stts, count), put32(stts, d);
  tables.push_back(leaf("stts", std::move(stts)));
  if (std::any_of(track.compositionOffsets.begin(), track.compositionOffsets.end(),
                  [](int32_t c) { return c != 0; })) {
    const bool negative =
        std::any_of(track.compositionOffsets.begin(), track.compositionOffsets.end(),
                    [](int32_t c) { return c < 0; });
    Bytes ctts{static_cast<uint8_t>(negative ? 1 : 0), 0, 0, 0};
    std::vector<std::pair<uint32_t, int32_t>> offsets;
    for (int32_t c : track.compositionOffsets) {
      if (!offsets.empty() && offsets.back().second == c)
        ++offsets.back().first;
      else
        offsets.emplace_back(1, c);
    }
    put32(ctts, static_cast<uint32_t>(offsets.size()));
    for (auto [count, c] : offsets) put32(ctts, count), put32(ctts, static_cast<uint32_t>(c));
    tables.push_back(leaf("ctts", std::move(ctts)));
  }
  if (track.syncSamples.size() < n) {
    Bytes stss{0, 0, 0, 0};
    put32(stss, static_cast<uint32_t>(track.syncSamples.size()));
    for (uint32_t s : track.syncSamples) put32(stss, s);
    tables.push_back(leaf("stss", std::move(stss)));
  }
  Bytes stsc{0, 0, 0, 0};
  std::vector<std::pair<uint32_t, uint32_t>> chunkRuns;  // first chunk, samples per chunk
  for (size_t i = 0; i < track.chunks.size(); ++i) {
    if (chunkRuns.empty() || chunkRuns.back().second != track.chunks[i].second) {
      chunkRuns.emplace_back(static_cast<uint32_t>(i + 1), track.chunks[i].second);
    }
  }
  put32(stsc, static_cast<uint32_t>(chunkRuns.size()));
  for (auto [first, count] : chunkRuns) put32(stsc, first), put32(stsc, count), put32(stsc, 1);
  tables.push_back(leaf("stsc", std::move(stsc)));
  Bytes stsz{0, 0, 0, 0};
  const bool sameSize = n > 0 && std::all_of(track.sizes.begin(), track.sizes.end(),
                                             [&](uint32_t s) { return s == track.sizes[0]; });
  put32(stsz, sameSize ? track.sizes[0] : 0);
  put32(stsz, static_cast<uint32_t>(n));
  if (!sameSize) {
    for (uint32_t s : track.sizes) put32(stsz, s);
  }
  tables.push_back(leaf("stsz", std::move(stsz)));
  const bool wide = !track.chunks.empty() && track.chunks.back().first > UINT32_MAX;
  Bytes offsets{0, 0, 0, 0};
  put32(offsets, static_cast<uint32_t>(track.chunks.size()));
  for (auto [offset, count] : track.chunks) {
    if (wide)
      put64(offsets, offset);
    else
      put32(offsets, static_cast<uint32_t>(offset));
  }
  tables.push_back(leaf(wide ? "co64" : "stco", std::move(offsets)));
  stbl.children = std::move(tables);
}

// Sets the duration of an mvhd, mdhd (|at| 16 / 24 by version) or tkhd (20 / 28).
void setDuration(Box& box, size_t at32, size_t at64, uint64_t duration) {
  if (box.payload.empty()) return;
  if (box.payload[0] == 1) {
    if (box.payload.size() >= at64 + 8) set64(box.payload, at64, duration);
  } else if (box.payload.size() >= at32 + 4) {
    set32(box.payload, at32, static_cast<uint32_t>(std::min<uint64_t>(duration, UINT32_MAX)));
  }
}

// The track id of a tkhd, which sits further in for version 1; absent when the box is too short
// for its version.
std::optional<uint32_t> trackIdOf(const Box& tkhd) {
  const size_t at = !tkhd.payload.empty() && tkhd.payload[0] == 1 ? 20 : 12;
  if (tkhd.payload.size() < at + 4) return std::nullopt;
  return read32(tkhd.payload.data() + at);
}

uint32_t timescaleOf(const Box& box) {
  const size_t at = box.payload.size() > 0 && box.payload[0] == 1 ? 20 : 12;
  return box.payload.size() >= at + 4 ? read32(box.payload.data() + at) : 0;
}

struct File {
  int fd = -1;
  ~File() {
    if (fd >= 0) ::close(fd);
  }
};

bool readAt(int fd, uint64_t offset, void* into, size_t size) {
  auto* out = static_cast<uint8_t*>(into);
  while (size > 0) {
    const ssize_t got = ::pread(fd, out, size, static_cast<off_t>(offset));
    if (got <= 0) return false;
    out += got, offset += got, size -= static_cast<size_t>(got);
  }
  return true;
}

bool writeAt(int fd, uint64_t offset, const void* from, size_t size) {
  const auto* in = static_cast<const uint8_t*>(from);
  while (size > 0) {
    const ssize_t put = ::pwrite(fd, in, size, static_cast<off_t>(offset));
    if (put <= 0) return false;
    in += put, offset += put, size -= static_cast<size_t>(put);
  }
  return true;
}

}  // namespace

InPlaceFinish finishFragmentsInPlace(const std::string& partPath, const std::string& path,
                                     std::string& why) {
  File file;
  file.fd = ::open(partPath.c_str(), O_RDWR | O_CLOEXEC);
  struct stat info {};
  if (file.fd < 0 || ::fstat(file.fd, &info) != 0) {
    why = "can't open " + partPath + ": " + std::strerror(errno);
    return InPlaceFinish::Failed;
  }
  const uint64_t fileSize = static_cast<uint64_t>(info.st_size);
  // The top-level boxes that are whole; a box cut by a crash ends the list.
  std::vector<TopBox> top;
  for (uint64_t at = 0; at + 8 <= fileSize;) {
    uint8_t header[16];
    if (!readAt(file.fd, at, header, 8)) break;
    uint64_t size = read32(header);
    if (size == 1) {
      if (at + 16 > fileSize || !readAt(file.fd, at + 8, header + 8, 8)) break;
      size = read64(header + 8);
    }
    if (size < 8 || size > fileSize - at) break;
    top.push_back({std::string(reinterpret_cast<char*>(header + 4), 4), at, size});
    at += size;
  }
  // ftyp, the initial index and the room kept right after it.
  if (top.size() < 3 || top[1].type != "moov" || top[2].type != "free") {
    why = "no room kept for the index";
    return InPlaceFinish::NoRoom;
  }
  Bytes moovBytes(top[1].size);
  if (!readAt(file.fd, top[1].offset, moovBytes.data(), moovBytes.size())) {
    why = "can't read " + partPath;
    return InPlaceFinish::Failed;
  }
  std::vector<Box> parsed;
  if (!parseBoxes(moovBytes.data(), moovBytes.size(), parsed) || parsed.size() != 1) {
    why = partPath + " has a broken index";
    return InPlaceFinish::Failed;
  }
  Box& moov = parsed[0];
  std::map<uint32_t, Track> tracks;
  for (Box& trak : moov.children) {
    if (trak.type != "trak") continue;
    Box* tkhd = trak.child("tkhd");
    Box* mdia = trak.child("mdia");
    Box* mdhd = mdia ? mdia->child("mdhd") : nullptr;
    const std::optional<uint32_t> id = tkhd ? trackIdOf(*tkhd) : std::nullopt;
    if (!id || !mdhd) {
      why = partPath + " has a broken track";
      return InPlaceFinish::Failed;
    }
    Track track;
    track.id = *id;
    track.timescale = timescaleOf(*mdhd);
    tracks[track.id] = track;
  }
  if (Box* mvex = moov.child("mvex")) {
    for (const Box& trex : mvex->children) {
      if (trex.type != "trex" || trex.payload.size() < 24) continue;
      auto found = tracks.find(read32(trex.payload.data() + 4));
      if (found == tracks.end()) continue;
      found->second.defaultDuration = read32(trex.payload.data() + 12);
      found->second.defaultSize = read32(trex.payload.data() + 16);
      found->second.defaultFlags = read32(trex.payload.data() + 20);
    }
  }
  // Fragments in order; the first one that does not check out ends the recording there.
  const uint64_t wholeEnd = top.back().offset + top.back().size;
  uint64_t keepEnd = wholeEnd;
  std::vector<uint64_t> emptied;  // boxes that become padding
  size_t fragments = 0;
  for (size_t i = 3; i < top.size(); ++i) {
    if (top[i].type == "mfra") {
      emptied.push_back(top[i].offset);
      continue;
    }
    if (top[i].type != "moof") continue;
    Bytes moof(top[i].size - 8);
    if (top[i].size > (64u << 20) ||
        !readAt(file.fd, top[i].offset + 8, moof.data(), moof.size())) {
      keepEnd = top[i].offset;
      break;
    }
    // A fragment that does not check out is taken back out: the tables' ends are remembered.
    struct Mark {
      size_t samples, chunks, syncs;
      std::optional<uint64_t> firstTime;
      uint64_t nextTime;
      uint32_t lastDuration;
    };
    std::map<uint32_t, Mark> marks;
    for (auto& [id, t] : tracks) {
      marks[id] = {t.sizes.size(), t.chunks.size(), t.syncSamples.size(),
                   t.firstTime,    t.nextTime,      t.durations.empty() ? 0 : t.durations.back()};
    }
    if (!addFragment(moof, top[i].offset, wholeEnd, tracks)) {
      for (auto& [id, t] : tracks) {
        const Mark& mark = marks[id];
        t.sizes.resize(mark.samples);
        t.durations.resize(mark.samples);
        t.compositionOffsets.resize(mark.samples);
        t.chunks.resize(mark.chunks);
        t.syncSamples.resize(mark.syncs);
        t.firstTime = mark.firstTime;
        t.nextTime = mark.nextTime;
        if (!t.durations.empty()) t.durations.back() = mark.lastDuration;
      }
      keepEnd = top[i].offset;
      break;
    }
    emptied.push_back(top[i].offset);
    ++fragments;
  }
  if (fragments == 0) {
    why = partPath + " holds no media";
    return InPlaceFinish::NoMedia;
  }
  // The new index: the sample tables filled in, the durations set, the fragment defaults gone.
  const uint32_t movieScale = moov.child("mvhd") ? timescaleOf(*moov.child("mvhd")) : 0;
  if (movieScale == 0) {
    why = partPath + " has a broken index";
    return InPlaceFinish::Failed;
  }
  uint64_t movieDuration = 0;
  std::vector<Box> kept;
  for (Box& box : moov.children) {
    if (box.type == "mvex") continue;
    if (box.type == "trak") {
      Box* tkhd = box.child("tkhd");
      const Track& track = tracks[*trackIdOf(*tkhd)];
      if (track.sizes.empty() || track.timescale == 0) continue;
      Box* mdia = box.child("mdia");
      Box* minf = mdia->child("minf");
      Box* stbl = minf ? minf->child("stbl") : nullptr;
      if (!stbl) {
        why = partPath + " has a broken track";
        return InPlaceFinish::Failed;
      }
      rebuildTables(*stbl, track);
      uint64_t media = 0;
      for (uint32_t d : track.durations) media += d;
      setDuration(*mdia->child("mdhd"), 16, 24, media);
      auto inMovie = [&](uint64_t t) { return t * movieScale / track.timescale; };
      const uint64_t start = track.firstTime.value_or(0);
      setDuration(*tkhd, 20, 28, inMovie(start + media));
      movieDuration = std::max(movieDuration, inMovie(start + media));
      box.remove("edts");
      if (start > 0) {
        // A track that starts late waits with an empty edit.
        Bytes elst{0, 0, 0, 0};
        put32(elst, 2);
        put32(elst, static_cast<uint32_t>(inMovie(start)));
        put32(elst, UINT32_MAX);
        put32(elst, 0x00010000);
        put32(elst, static_cast<uint32_t>(inMovie(media)));
        put32(elst, 0);
        put32(elst, 0x00010000);
        Box edts;
        edts.type = "edts";
        edts.container = true;
        edts.children.push_back(leaf("elst", std::move(elst)));
        box.children.insert(box.children.begin() + 1, std::move(edts));
      }
    }
    kept.push_back(std::move(box));
  }
  moov.children = std::move(kept);
  setDuration(*moov.child("mvhd"), 16, 24, movieDuration);
  Bytes front;
  serialize(moov, front);
  const uint64_t room = top[1].size + top[2].size;
  if (front.size() != room && front.size() + 8 > room) {
    why = "the index does not fit its room";
    return InPlaceFinish::NoRoom;
  }
  if (front.size() < room) {
    const uint64_t pad = room - front.size();
    if (pad > UINT32_MAX) {
      put32(front, 1);
      front.insert(front.end(), {'f', 'r', 'e', 'e'});
      put64(front, pad);
    } else {
      put32(front, static_cast<uint32_t>(pad));
      front.insert(front.end(), {'f', 'r', 'e', 'e'});
    }
    if (front.size() > room) {
      why = "the index does not fit its room";
      return InPlaceFinish::NoRoom;
    }
  }
  static constexpr char kFree[4] = {'f', 'r', 'e', 'e'};
  // What lands in the hole goes first: when the disk is full that fails before the initial
  // index, which still makes the part file recoverable, has been touched.
  const size_t overInitial = std::min<size_t>(front.size(), top[1].size);
  bool written = writeAt(file.fd, top[1].offset + overInitial, front.data() + overInitial,
                         front.size() - overInitial) &&
                 writeAt(file.fd, top[1].offset, front.data(), overInitial);
  for (uint64_t offset : emptied) written = written && writeAt(file.fd, offset + 4, kFree, 4);
  if (written && keepEnd < fileSize)
    written = ::ftruncate(file.fd, static_cast<off_t>(keepEnd)) == 0;
  if (!written || ::fsync(file.fd) != 0) {
    why = "can't write " + partPath + ": " + std::strerror(errno);
    return InPlaceFinish::Failed;
  }
  if (std::rename(partPath.c_str(), path.c_str()) != 0) {
    why = "can't rename " + partPath + ": " + std::strerror(errno);
    return InPlaceFinish::Failed;
  }
  return InPlaceFinish::Done;
}

}  // namespace nembra
