// Throughput of the streaming wire core: AMF0 coding, chunk formatting and parsing beside
// memcpy of the same bytes, and the packet stream over loopback with its system calls per
// message. Ends with a table of each byte benchmark's speed as a fraction of memcpy's.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "streaming/amf.h"
#include "streaming/media_callback.h"
#include "streaming/rtmp_chunk_demuxer.h"
#include "streaming/rtmp_chunk_formatter.h"
#include "streaming/rtmp_chunk_parser.h"
#include "streaming/rtmp_packet_stream.h"
#include "streaming/stream_log.h"

namespace nembra {
namespace {

constexpr size_t kVideoMessageSize = 1 << 20;
constexpr size_t kLoopbackMessageSize = 200 * 1000;

std::shared_ptr<AMFValue> OnMetaData() {
  auto array = AMFValue::Array();
  auto* properties = static_cast<AMFObject*>(array.get());
  properties->AddValue("duration", AMFValue::Number(0));
  properties->AddValue("width", AMFValue::Number(1280));
  properties->AddValue("height", AMFValue::Number(720));
  properties->AddValue("videodatarate", AMFValue::Number(2500));
  properties->AddValue("framerate", AMFValue::Number(30));
  properties->AddValue("videocodecid", AMFValue::Number(7));
  properties->AddValue("audiodatarate", AMFValue::Number(128));
  properties->AddValue("audiosamplerate", AMFValue::Number(44100));
  properties->AddValue("audiosamplesize", AMFValue::Number(16));
  properties->AddValue("stereo", AMFValue::Bool(true));
  properties->AddValue("audiocodecid", AMFValue::Number(10));
  properties->AddValue("encoder", AMFValue::String("NembraMediaSDK"));
  properties->AddValue("filesize", AMFValue::Number(0));
  return array;
}

std::vector<std::shared_ptr<AMFValue>> ConnectCommand() {
  auto object = AMFValue::Object();
  auto* properties = static_cast<AMFObject*>(object.get());
  properties->AddValue("app", AMFValue::String("live"));
  properties->AddValue("type", AMFValue::String("nonprivate"));
  properties->AddValue("flashVer", AMFValue::String("FMLE/3.0 (compatible; livestreamer)"));
  properties->AddValue("tcUrl", AMFValue::String("rtmp://ingest.example.com:1935/live"));
  return {AMFValue::String("connect"), AMFValue::Number(1), object};
}

void EncodeDecode(benchmark::State& state, const std::vector<std::shared_ptr<AMFValue>>& values) {
  std::vector<uint8_t> bytes;
  for (auto _ : state) {
    bytes.clear();
    BitstreamWriter writer(bytes);
    for (const auto& value : values) value->Write(writer);
    BitstreamReader reader(bytes);
    while (reader.RemainingDataSize() > 0) {
      benchmark::DoNotOptimize(AMFValue::ReadValue(reader));
    }
  }
  state.counters["bytes"] = static_cast<double>(bytes.size());
}

void BM_Amf0OnMetaData(benchmark::State& state) {
  EncodeDecode(state,
               {AMFValue::String("@setDataFrame"), AMFValue::String("onMetaData"), OnMetaData()});
}
BENCHMARK(BM_Amf0OnMetaData);

void BM_Amf0ConnectCommand(benchmark::State& state) { EncodeDecode(state, ConnectCommand()); }
BENCHMARK(BM_Amf0ConnectCommand);

RTMPPacket VideoMessage(size_t size) {
  RTMPPacket packet(MediaType::Video, MediaCodec::H264, RTMPChannel::Video, RTMPPacketType::Video,
                    1);
  packet.Data().resize(size);
  for (size_t i = 0; i < size; ++i) packet.Data()[i] = static_cast<uint8_t>(i * 31);
  return packet;
}

void BM_Memcpy(benchmark::State& state) {
  const std::vector<uint8_t> source = VideoMessage(kVideoMessageSize).Data();
  std::vector<uint8_t> destination(kVideoMessageSize);
  for (auto _ : state) {
    std::memcpy(destination.data(), source.data(), source.size());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * kVideoMessageSize);
}
BENCHMARK(BM_Memcpy);

void BM_ChunkFormatter(benchmark::State& state) {
  size_t bytesOut = 0;
  RTMPChunkFormatter formatter(std::make_shared<MediaCallback<RTMPChunk>>(
                                   [&](RTMPChunk chunk) { bytesOut += chunk.Data().size(); }),
                               RTMPChannel::Video);
  formatter.SetChunkSize(state.range(0));
  const RTMPPacket packet = VideoMessage(kVideoMessageSize);
  for (auto _ : state) {
    formatter.PutFrame(packet);
  }
  benchmark::DoNotOptimize(bytesOut);
  state.SetBytesProcessed(state.iterations() * kVideoMessageSize);
}
BENCHMARK(BM_ChunkFormatter)->Arg(128)->Arg(4096);

// The wire bytes of one 1 MiB message, and the same cut into chunk frames.
std::vector<RTMPChunk> FormattedChunks(uint64_t chunkSize) {
  std::vector<RTMPChunk> chunks;
  RTMPChunkFormatter formatter(
      std::make_shared<MediaCallback<RTMPChunk>>([&](RTMPChunk chunk) { chunks.push_back(chunk); }),
      RTMPChannel::Video);
  formatter.SetChunkSize(chunkSize);
  formatter.PutFrame(VideoMessage(kVideoMessageSize));
  return chunks;
}

// Chunks already framed, straight into the channel's parser.
void BM_ChunkParser(benchmark::State& state) {
  size_t packets = 0;
  RTMPChunkParser parser(
      std::make_shared<MediaCallback<RTMPPacket>>([&](RTMPPacket) { ++packets; }),
      RTMPChannel::Video);
  parser.SetChunkSize(state.range(0));
  const std::vector<RTMPChunk> chunks = FormattedChunks(state.range(0));
  for (auto _ : state) {
    for (const RTMPChunk& chunk : chunks) parser.PutFrame(chunk);
  }
  if (packets != static_cast<size_t>(state.iterations())) state.SkipWithError("lost packets");
  state.SetBytesProcessed(state.iterations() * kVideoMessageSize);
}
BENCHMARK(BM_ChunkParser)->Arg(128)->Arg(4096);

// Raw received bytes in 64 KiB reads, framed and reassembled: the receiving thread's work.
void BM_ChunkDemuxer(benchmark::State& state) {
  StreamLog::SetSink([](const std::string&) {});
  size_t packets = 0;
  RTMPChunkDemuxer demuxer(
      std::make_shared<MediaCallback<RTMPPacket>>([&](RTMPPacket) { ++packets; }));
  demuxer.SetChunkSize(state.range(0));
  std::vector<uint8_t> wire;
  for (const RTMPChunk& chunk : FormattedChunks(state.range(0))) {
    wire.insert(wire.end(), chunk.Data().begin(), chunk.Data().end());
  }
  const std::span<const uint8_t> all(wire);
  for (auto _ : state) {
    for (size_t at = 0; at < all.size(); at += 64 * 1024) {
      demuxer.Consume(all.subspan(at, std::min<size_t>(64 * 1024, all.size() - at)));
    }
  }
  StreamLog::SetSink({});
  if (packets != static_cast<size_t>(state.iterations())) state.SkipWithError("lost packets");
  state.SetBytesProcessed(state.iterations() * kVideoMessageSize);
}
BENCHMARK(BM_ChunkDemuxer)->Arg(128)->Arg(4096);

// A loopback peer that reads and discards everything.
class DrainingServer {
 public:
  DrainingServer() {
    listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length);
    ::listen(listener_, 1);
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] {
      const int client = ::accept(listener_, nullptr, nullptr);
      std::vector<uint8_t> buffer(1 << 20);
      while (::recv(client, buffer.data(), buffer.size(), 0) > 0) {
      }
      ::close(client);
    });
  }
  ~DrainingServer() {
    thread_.join();
    ::close(listener_);
  }
  uint16_t port() const { return port_; }

 private:
  int listener_;
  uint16_t port_;
  std::thread thread_;
};

void BM_PacketStreamLoopback(benchmark::State& state) {
  StreamLog::SetSink([](const std::string&) {});
  DrainingServer server;
  {
    NetworkConnection connection;
    connection.Connect("127.0.0.1", server.port());
    RTMPPacketStream stream(connection, std::make_shared<MediaCallback<RTMPPacket>>());
    RTMPPacket message = VideoMessage(kLoopbackMessageSize);
    stream.PutFrame(message);             // creates the channel's formatter,
    stream.SetChunkSize(state.range(0));  // which then follows the size
    const uint64_t callsBefore = connection.Counters().sendCalls;
    double pts = 0;
    for (auto _ : state) {
      message.SetPTS(pts += 1.0 / 30);
      stream.PutFrame(message);
    }
    const uint64_t calls = connection.Counters().sendCalls - callsBefore;
    state.counters["syscalls_per_msg"] =
        static_cast<double>(calls) / static_cast<double>(state.iterations());
    state.counters["msgs_per_s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    stream.Close();
    connection.Close();
  }
  StreamLog::SetSink({});
  state.SetBytesProcessed(state.iterations() * kLoopbackMessageSize);
}
BENCHMARK(BM_PacketStreamLoopback)->Arg(128)->Arg(4096)->UseRealTime();

// Keeps each run's byte rate so the ratios to memcpy can be printed at the end.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      auto it = run.counters.find("bytes_per_second");
      if (it != run.counters.end() && run.run_type == Run::RT_Iteration) {
        rates_.emplace_back(run.benchmark_name(), it->second.value);
      }
    }
  }

  void PrintRatios() const {
    double memcpyRate = 0;
    for (const auto& [name, rate] : rates_) {
      if (name.rfind("BM_Memcpy", 0) == 0) memcpyRate = rate;
    }
    if (memcpyRate == 0) return;
    std::printf("\n%-40s %10s %12s\n", "benchmark", "GB/s", "vs memcpy");
    for (const auto& [name, rate] : rates_) {
      std::printf("%-40s %10.2f %11.1f%%\n", name.c_str(), rate / 1e9, 100.0 * rate / memcpyRate);
    }
  }

 private:
  std::vector<std::pair<std::string, double>> rates_;
};

}  // namespace
}  // namespace nembra

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  nembra::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  benchmark::Shutdown();
  return 0;
}
