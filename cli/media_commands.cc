// `nembra videos|audios|images list|get|update|delete|url|download`, `nembra videos cover`,
// `nembra videos create FILE [--cover IMG]` and `nembra videos rerecord TOKEN FILE`: the REST
// resources through the SDK's endpoints, as tables for people and JSON (--json) for scripts.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include "api/media_token.h"
#include "cli/cli_context.h"
#include "nembra/application.h"
#include "nembra/audio.h"
#include "nembra/image.h"
#include "nembra/media_type.h"
#include "nembra/nembra_audios.h"
#include "nembra/nembra_images.h"
#include "nembra/nembra_uploading_handler.h"
#include "nembra/nembra_videos.h"
#include "nembra/reply_status.h"
#include "nembra/video.h"
#include "platform/files/file_system.h"
#include "platform/media/image_codec.h"
#include "platform/media/media_log.h"

namespace nembra {

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr auto kWait = std::chrono::minutes(30);

struct MediaArguments {
  std::string token;
  std::string stream;
  std::vector<std::string> fields;
  int limit = 20;
  int offset = 0;
  std::string output;
  std::string file;
  std::string cover;
  std::string fromFile;
};

// Pumps the main queue until |done| (set from any thread) or the wait ends.
bool waitFor(Nembra& nembra, const std::atomic<bool>& done) {
  return nembra.mainQueue().runUntil([&] { return done.load(); }, kWait);
}

int fail(const std::string& command, const std::string& message, int code = 1) {
  std::cerr << "nembra " << command << ": " << message << "\n";
  return code;
}

std::string cell(const Json& value) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_null()) return "";
  return value.dump();
}

void printTable(const std::vector<Json>& rows, const std::vector<std::string>& columns) {
  std::vector<size_t> widths;
  for (const auto& column : columns) widths.push_back(column.size());
  for (const Json& row : rows) {
    for (size_t i = 0; i < columns.size(); ++i) {
      widths[i] =
          std::max(widths[i], std::min<size_t>(40, cell(row.value(columns[i], Json())).size()));
    }
  }
  auto line = [&](const std::vector<std::string>& cells) {
    for (size_t i = 0; i < cells.size(); ++i) {
      std::string text = cells[i].size() > 40 ? cells[i].substr(0, 37) + "..." : cells[i];
      std::cout << text
                << (i + 1 < cells.size() ? std::string(widths[i] - text.size() + 2, ' ') : "");
    }
    std::cout << "\n";
  };
  std::vector<std::string> header;
  for (const auto& column : columns) {
    std::string upper = column;
    for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    header.push_back(upper);
  }
  line(header);
  for (const Json& row : rows) {
    std::vector<std::string> cells;
    for (const auto& column : columns) cells.push_back(cell(row.value(column, Json())));
    line(cells);
  }
}

void printModel(const Json& model, bool json) {
  if (json) {
    std::cout << model.dump(2) << "\n";
    return;
  }
  size_t width = 0;
  for (const auto& entry : model.items()) width = std::max(width, entry.key().size());
  for (const auto& entry : model.items()) {
    std::cout << entry.key() << std::string(width - entry.key().size() + 2, ' ')
              << cell(entry.value()) << "\n";
  }
}

// Copies a cached download to |output| ("-" writes standard output).
int deliver(const std::string& command, const std::string& cached, const std::string& output) {
  if (output.empty()) {
    std::cout << cached << "\n";
    return 0;
  }
  if (output == "-") {
    std::ifstream in(cached, std::ios::binary);
    std::cout << in.rdbuf();
    return std::cout ? 0 : fail(command, "cannot write standard output");
  }
  std::error_code ec;
  fs::copy_file(cached, output, fs::copy_options::overwrite_existing, ec);
  if (ec) return fail(command, "cannot write " + output + ": " + ec.message());
  std::cout << output << "\n";
  return 0;
}

// The operations every resource has, on its endpoint |Endpoint| with model |Model|.
template <typename Model, typename Endpoint>
class ResourceCommands {
 public:
  ResourceCommands(CliContext& context, std::string name, int type, Endpoint& (Nembra::*endpoint)())
      : context_(context), name_(std::move(name)), type_(type), endpoint_(endpoint) {}

  Nembra& nembra() { return context_.nembra(); }
  Endpoint& resource() { return (nembra().*endpoint_)(); }
  std::string command(const char* verb) const { return name_ + " " + verb; }

  // The handler's JSON requests rather than the endpoint's models: an HTTP failure then
  // reports the service's own explanation from the answer's body.
  int list(const MediaArguments& args) {
    std::optional<Json> json;
    const Json data{{"limit", args.limit}, {"offset", args.offset}};
    if (int code = awaitJson(command("list"), "the index request", json, [&](auto callback) {
          nembra().uploadingHandler().indexWithType(type_, data, JsonCallback(callback));
        })) {
      return code;
    }
    // "[]" reaches us as no JSON (the connection's two-byte rule): an empty list.
    std::vector<Json> rows;
    if (json && json->is_array()) {
      for (const Json& element : *json) rows.push_back(Model::initWithJson(element).toDictionary());
    }
    if (context_.options.json) {
      std::cout << Json(rows).dump(2) << "\n";
    } else {
      printTable(rows, {"token", "title", "state_string", "duration", "created"});
    }
    return 0;
  }

  int get(const MediaArguments& args) {
    std::optional<Json> json;
    if (int code = awaitJson(command("get"), "the get request", json, [&](auto callback) {
          nembra().uploadingHandler().getWithType(type_, args.token, Json::object(),
                                                  JsonCallback(callback));
        })) {
      return code;
    }
    printModel(modelFrom(json).toDictionary(), context_.options.json);
    return 0;
  }

  int update(const MediaArguments& args) {
    std::string error;
    Json data = parseNameValues(args.fields, error);
    if (!error.empty()) return fail(command("update"), error, 2);
    std::optional<Json> json;
    if (int code = awaitJson(command("update"), "the update request", json, [&](auto callback) {
          nembra().uploadingHandler().updateWithType(type_, args.token, std::string(), data,
                                                     JsonCallback(callback));
        })) {
      return code;
    }
    printModel(modelFrom(json).toDictionary(), context_.options.json);
    return 0;
  }

  int download(const MediaArguments& args) {
    std::atomic<bool> done = false;
    std::optional<std::string> path;
    OptionalError failure;
    resource().download(args.token,
                        [&](const std::optional<std::string>& cached, const OptionalError& error) {
                          path = cached;
                          failure = error;
                          done = true;
                        });
    if (!waitFor(nembra(), done)) return fail(command("download"), "no answer");
    if (!path) {
      return fail(command("download"), failure ? failure->message : "nothing was downloaded");
    }
    return deliver(command("download"), *path, args.output);
  }

  using JsonCallback = NembraUploadingHandler::JsonCallback;

  static Model modelFrom(const std::optional<Json>& json) {
    return Model::initWithJson(json && json->is_object() ? *json : Json::object());
  }

  // Starts a request that answers with JSON on the connection's queue and waits for it. 0 with
  // |json| set when the service answered 2xx; otherwise the command's failure exit code, the
  // message naming |what| and the service's explanation.
  template <typename Start>
  int awaitJson(const std::string& label, const std::string& what, std::optional<Json>& json,
                Start start) {
    std::atomic<bool> done = false;
    HttpResponse response;
    OptionalError failure;
    start([&](const std::optional<Json>& answer, const HttpResponse& r, const OptionalError& e) {
      json = answer;
      response = r;
      failure = e;
      done = true;
    });
    if (!waitFor(nembra(), done)) return fail(label, "no answer");
    if (!failure) failure = ReplyStatus::check(what, response, json);
    if (failure) return fail(label, failure->message);
    return 0;
  }

  // Answers with JSON on the connection's queue; waits for it and prints the answer.
  template <typename Start>
  int jsonRequest(const std::string& label, Start start) {
    std::optional<Json> json;
    if (int code = awaitJson(label, label, json, start)) return code;
    if (json) printModel(*json, context_.options.json);
    return 0;
  }

  void add(CLI::App& parent, int& exitCode, const std::string& urlHelp,
           std::function<std::string(const std::string&)> url,
           std::function<int(const MediaArguments&)> destroy) {
    auto args = std::make_shared<MediaArguments>();
    auto* group = parent.add_subcommand(name_, "The " + name_ + " resource of the service");
    group->require_subcommand(1);

    auto* list = group->add_subcommand("list", "List " + name_ + " (a table, or --json)");
    list->add_option("--limit", args->limit, "How many")->capture_default_str();
    list->add_option("--offset", args->offset, "From which")->capture_default_str();
    list->callback([this, args, &exitCode] { exitCode = this->list(*args); });

    auto* get = group->add_subcommand("get", "Show one");
    get->add_option("TOKEN", args->token)->required();
    get->callback([this, args, &exitCode] { exitCode = this->get(*args); });

    auto* update = group->add_subcommand("update", "Change fields: name=value ...");
    update->add_option("TOKEN", args->token)->required();
    update->add_option("FIELDS", args->fields)->required();
    update->callback([this, args, &exitCode] { exitCode = this->update(*args); });

    auto* remove = group->add_subcommand("delete", "Delete one");
    remove->add_option("TOKEN", args->token)->required();
    if (type_ == VIDEO) remove->add_option("--stream", args->stream, "Delete only this stream");
    remove->callback([args, destroy, &exitCode] { exitCode = destroy(*args); });

    auto* address = group->add_subcommand("url", urlHelp);
    address->add_option("TOKEN", args->token)->required();
    address->callback([this, args, url, &exitCode] {
      if (auto error =
              MediaToken::check(args->token, std::string(mediaTypeName(type_)) + " token")) {
        std::cerr << "nembra " << group_->get_name() << " url: " << error->message << "\n";
        exitCode = 2;
        return;
      }
      std::cout << url(args->token) << "\n";
      exitCode = 0;
    });

    auto* download = group->add_subcommand(
        "download", "Fetch the media file into the SDK's cache; print its path or copy it");
    download->add_option("TOKEN", args->token)->required();
    download->add_option("-o,--output", args->output, "Copy it here (\"-\": standard output)");
    download->callback([this, args, &exitCode] { exitCode = this->download(*args); });
    group_ = group;
    args_ = args;
  }

  CLI::App* group_ = nullptr;
  std::shared_ptr<MediaArguments> args_;

 private:
  CliContext& context_;
  const std::string name_;
  const int type_;
  Endpoint& (Nembra::*endpoint_)();
};

// Decoding pictures: FFmpeg's own chatter only with --debug.
void quietMedia(CliContext& context) {
  setMediaLogLevel(context.options.debug ? MediaLogLevel::Info : MediaLogLevel::Errors);
}

// A file for an SDK flow that deletes what it uploads: a link to the user's file, or a copy.
std::optional<std::string> handOver(const std::string& source, std::string& error) {
  std::error_code ec;
  if (!fs::is_regular_file(source, ec)) {
    error = source + ": no such file";
    return std::nullopt;
  }
  std::string target = FileSystem::shared().temporaryDirectory() + "/rerecord-" +
                       std::to_string(::getpid()) + "-" + fs::path(source).filename().string();
  fs::remove(target, ec);
  fs::create_hard_link(source, target, ec);
  if (ec) fs::copy_file(source, target, fs::copy_options::overwrite_existing, ec);
  if (ec) {
    error = "cannot prepare " + source + ": " + ec.message();
    return std::nullopt;
  }
  return target;
}

void registerVideoExtras(CLI::App& group, CliContext& context, int& exitCode,
                         std::shared_ptr<MediaArguments> args) {
  auto* cover = group.add_subcommand(
      "cover", "Save a video's cover picture (from the service, or grabbed from --file)");
  cover->add_option("TOKEN", args->token, "Video token");
  cover->add_option("--file", args->fromFile, "Grab the picture at 0 s of this local video");
  cover->add_option("-o,--output", args->output, "Where to save the JPEG")->required();
  cover->callback([&context, &exitCode, args] {
    quietMedia(context);
    Nembra& nembra = context.nembra();
    std::atomic<bool> done = false;
    StillImagePtr picture;
    OptionalError failure;
    auto take = [&](StillImagePtr image, const OptionalError& error) {
      picture = image;
      failure = error;
      done = true;
    };
    if (!args->fromFile.empty()) {
      nembra.videos().getImageForVideoByPath(args->fromFile, take);
    } else if (!args->token.empty()) {
      nembra.videos().getImageForVideoByToken(
          args->token, Json::object(),
          [&](StillImagePtr image, const HttpResponse&, const OptionalError& error) {
            take(image, error);
          });
    } else {
      exitCode = fail("videos cover", "give a TOKEN or --file", 2);
      return;
    }
    if (!waitFor(nembra, done)) {
      exitCode = fail("videos cover", "no answer");
      return;
    }
    if (!picture) {
      exitCode = fail("videos cover", failure ? failure->message : "no picture");
      return;
    }
    std::ofstream out(args->output, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(picture->data.data()),
              static_cast<std::streamsize>(picture->data.size()));
    if (!out) {
      exitCode = fail("videos cover", "cannot write " + args->output);
      return;
    }
    std::cout << args->output << "\t" << picture->width << "x" << picture->height << " "
              << picture->format << "\n";
    exitCode = 0;
  });

  auto* create = group.add_subcommand(
      "create", "Create a video from a local file: create, cover, attach, submit");
  create->add_option("FILE", args->file)->required();
  create->add_option("--cover", args->cover, "A picture to use as the cover");
  create->add_option("--field", args->fields, "Video field name=value")->take_all();
  create->callback([&context, &exitCode, args] {
    quietMedia(context);
    Nembra& nembra = context.nembra();
    std::string error;
    Json data = parseNameValues(args->fields, error);
    if (!error.empty()) {
      exitCode = fail("videos create", error, 2);
      return;
    }
    StillImagePtr cover;
    if (!args->cover.empty()) {
      OptionalError readError;
      auto text = FileSystem::readFile(args->cover, &readError);
      if (!text || text->empty()) {
        exitCode = fail("videos create",
                        "cannot read the cover " + args->cover +
                            (readError ? ": " + readError->message : ": it is empty"),
                        2);
        return;
      }
      std::vector<uint8_t> bytes(text->begin(), text->end());
      ImageInfo info;
      if (auto bad = makeImageCodec()->inspect(bytes, info)) {
        exitCode = fail("videos create", args->cover + ": " + bad->message, 2);
        return;
      }
      cover = std::make_shared<StillImage>(StillImage{bytes, info.format, info.width, info.height});
    }
    std::atomic<bool> done = false;
    std::optional<Json> answer;
    HttpResponse response;
    OptionalError failure;
    nembra.videos().createVideoWithData(
        data, args->file, cover,
        [&](const std::optional<Json>& json, const HttpResponse& r, const OptionalError& e) {
          answer = json;
          response = r;
          failure = e;
          done = true;
        },
        nullptr);
    if (!waitFor(nembra, done)) {
      exitCode = fail("videos create", "no answer");
      return;
    }
    nembra.mainQueue().runUntilIdle();
    if (!failure) failure = ReplyStatus::check("the create request", response, answer);
    Video video = Video::initWithJson(answer && answer->is_object() ? *answer : Json::object());
    if (!failure && video.token.empty()) {
      failure = Error::parse("the create answer has no \"video\" or \"stream\" token");
    }
    if (failure) {
      exitCode = fail("videos create", failure->message);
      return;
    }
    if (context.options.json) {
      std::cout << video.toDictionary().dump(2) << "\n";
    } else {
      std::cout << video.token << "\t" << args->file << "\n";
    }
    exitCode = 0;
  });

  auto* rerecord = group.add_subcommand(
      "rerecord", "Attach a new recording to an existing video as a new stream");
  rerecord->add_option("TOKEN", args->token)->required();
  rerecord->add_option("FILE", args->file)->required();
  rerecord->callback([&context, &exitCode, args] {
    Nembra& nembra = context.nembra();
    std::string error;
    // The flow removes the file it sends once cached: it gets a link, the user's file stays.
    auto handed = handOver(args->file, error);
    if (!handed) {
      exitCode = fail("videos rerecord", error, 2);
      return;
    }
    std::atomic<bool> done = false;
    std::optional<Json> answer;
    HttpResponse response;
    OptionalError failure;
    nembra.videos().rerecordVideoWithToken(
        args->token, *handed, Json::object(),
        [&](const std::optional<Json>& json, const HttpResponse& r, const OptionalError& e) {
          answer = json;
          response = r;
          failure = e;
          done = true;
        },
        nullptr);
    bool answered = waitFor(nembra, done);
    nembra.mainQueue().runUntilIdle();
    std::error_code ec;
    fs::remove(*handed, ec);
    if (answered && !failure) failure = ReplyStatus::check("the stream request", response, answer);
    if (answered && !failure && (!answer || !answer->is_object() || !answer->contains("token"))) {
      failure = Error::parse("the stream answer has no \"token\"");
    }
    if (!answered || failure) {
      exitCode = fail("videos rerecord", failure ? failure->message : "no answer");
      return;
    }
    printModel(Video::initWithJson(answer ? *answer : Json::object()).toDictionary(),
               context.options.json);
    exitCode = 0;
  });
}

}  // namespace

void registerMediaCommands(CLI::App& app, CliContext& context, int& exitCode) {
  // Kept for the program's life: the subcommands' callbacks point into them.
  static ResourceCommands<Video, NembraVideos> videos(context, "videos", VIDEO, &Nembra::videos);
  static ResourceCommands<Audio, NembraAudios> audios(context, "audios", AUDIO, &Nembra::audios);
  static ResourceCommands<Image, NembraImages> images(context, "images", IMAGE, &Nembra::images);

  auto jsonAnswer = [&context](auto& commands, const std::string& label) {
    return [&commands, label](auto start) { return commands.jsonRequest(label, start); };
  };

  videos.add(
      app, exitCode, "Print the video file's URL",
      [&context](const std::string& token) { return context.nembra().videos().getVideoUrl(token); },
      [&context, jsonAnswer](const MediaArguments& args) {
        return jsonAnswer(videos, "videos delete")([&](auto callback) {
          context.nembra().videos().destroy(args.token, args.stream, callback);
        });
      });
  registerVideoExtras(*videos.group_, context, exitCode, videos.args_);

  audios.add(
      app, exitCode, "Print the audio file's URL",
      [&context](const std::string& token) { return context.nembra().audios().getAudioUrl(token); },
      [&context, jsonAnswer](const MediaArguments& args) {
        return jsonAnswer(audios, "audios delete")(
            [&](auto callback) { context.nembra().audios().destroy(args.token, callback); });
      });
  images.add(
      app, exitCode, "Print the image file's URL",
      [&context](const std::string& token) { return context.nembra().images().getImageUrl(token); },
      [&context, jsonAnswer](const MediaArguments& args) {
        return jsonAnswer(images, "images delete")(
            [&](auto callback) { context.nembra().images().destroy(args.token, callback); });
      });
}

}  // namespace nembra
