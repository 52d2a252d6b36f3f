// `nembra upload FILE... [--type video|audio|image] [--extra k=v ...] [--wifi-only]
// [--on-lost continue|reload|notify|delete] [--parallel N] [--remove-source]` and
// `nembra upload --resume`: uploads files through the SDK's upload flow, a progress line per
// file, and prints each media token.
//
// The SDK deletes a file once the service has confirmed it; the command hands it a link to
// each file (a copy where no link can be made) so the user's own files stay, unless
// --remove-source says they may go.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>

#include "api/upload_journal.h"
#include "cli/cli_context.h"
#include "cli/progress_board.h"
#include "nembra/application.h"
#include "nembra/media_type.h"
#include "nembra/nembra_uploading_handler.h"
#include "nembra/reply_status.h"
#include "nembra/uploading_config.h"
#include "platform/files/file_system.h"
#include "platform/media/media_log.h"

namespace nembra {

namespace {

namespace fs = std::filesystem;

struct UploadArguments {
  std::vector<std::string> files;
  std::string type;
  std::vector<std::string> extra;
  bool wifiOnly = false;
  std::string onLost = "continue";
  int parallel = 4;
  bool removeSource = false;
  bool resume = false;
};

struct FileUpload {
  std::string source;  // as the user named it
  std::string handed;  // what the SDK uploads (and deletes once confirmed)
  int type = 0;
  size_t line = 0;
  bool begun = false;
  bool ended = false;
  std::string token;
  std::string error;
};

int32_t actionCode(const std::string& name) {
  if (name == "reload") return UPLOADING_ERROR_ACTION_RELOAD_MEDIA;
  if (name == "notify") return UPLOADING_ERROR_ACTION_ERROR_NOTIFICATION;
  if (name == "delete") return UPLOADING_ERROR_ACTION_DELETE_MEDIA;
  return UPLOADING_ERROR_ACTION_CONTINUE_UPLOADING_MEDIA;
}

int typeCode(const std::string& name) {
  if (name == "video") return VIDEO;
  if (name == "audio") return AUDIO;
  if (name == "image") return IMAGE;
  return 0;
}

// The SDK's link or copy of a file sits alone in a directory of the temporary directory, under
// the file's own name, beside a note of the user's path: a later `--resume` shows and reports
// the user's file, not the SDK's.
constexpr const char* kSourceNote = ".source";

std::string handOverPath(const std::string& source, size_t index) {
  return FileSystem::shared().temporaryDirectory() + "/upload-" + std::to_string(::getpid()) + "-" +
         std::to_string(index) + "/" + fs::path(source).filename().string();
}

// The user's path noted beside |handed|, or |handed| itself when there is no note.
std::string sourceOf(const std::string& handed) {
  std::ifstream note(fs::path(handed).parent_path() / kSourceNote);
  std::string source;
  if (note && std::getline(note, source) && !source.empty()) return source;
  return handed;
}

// Removes the SDK's link or copy and its directory (only a directory holding a note is ours).
void dropHandOver(const std::string& handed) {
  std::error_code ec;
  fs::path directory = fs::path(handed).parent_path();
  if (!fs::exists(directory / kSourceNote, ec)) {
    fs::remove(handed, ec);
    return;
  }
  fs::remove_all(directory, ec);
}

// Links (or copies) |source| for the SDK; an error text when neither works.
std::string handOver(const std::string& source, const std::string& target) {
  std::error_code ec;
  fs::path directory = fs::path(target).parent_path();
  fs::remove_all(directory, ec);
  fs::create_directories(directory, ec);
  std::ofstream(directory / kSourceNote) << fs::absolute(source, ec).string() << "\n";
  fs::create_hard_link(source, target, ec);
  if (!ec) return "";
  fs::copy_file(source, target, fs::copy_options::overwrite_existing, ec);
  if (!ec) return "";
  dropHandOver(target);
  return "cannot prepare " + source + " for upload: " + ec.message();
}

// What went wrong with a confirm, or "" when the upload is finished: a confirm already taken
// (its first answer died with an earlier run) finishes it as well as a fresh one.
std::string confirmFailure(const std::optional<Json>& json, const HttpResponse& response,
                           const OptionalError& error) {
  OptionalError failure = error;
  if (!failure && !ReplyStatus::isAlreadyConfirmed(response, json)) {
    failure = ReplyStatus::check("the confirm request", response, json);
  }
  return failure ? "the service did not confirm the upload: " + failure->message : "";
}

class UploadRun {
 public:
  UploadRun(CliContext& context, const UploadArguments& arguments)
      : context_(context),
        arguments_(arguments),
        nembra_(context.nembra()),
        board_(stderr, ::isatty(fileno(stderr)) && !context.options.json) {}

  int run() {
    setMediaLogLevel(context_.options.debug ? MediaLogLevel::Info : MediaLogLevel::Errors);
    UploadingConfig& config = nembra_.uploadingConfig();
    config.setShouldUseWifiOnly(arguments_.wifiOnly);
    config.setLostConnectionAction(actionCode(arguments_.onLost));
    std::string badExtra;
    Json data = parseNameValues(arguments_.extra, badExtra);
    if (data.is_null()) {
      std::cerr << "nembra upload: --extra " << badExtra << "\n";
      return 2;
    }
    data_ = data;
    installDelegate();
    if (arguments_.resume) return resume();
    if (arguments_.files.empty()) {
      std::cerr << "nembra upload: give one or more FILEs, or --resume\n";
      return 2;
    }
    prepare();
    size_t next = 0;
    size_t running = 0;
    auto start = [&] {
      while (next < uploads_.size() && running < static_cast<size_t>(arguments_.parallel)) {
        FileUpload& upload = uploads_[next++];
        if (upload.ended) continue;
        ++running;
        begin(upload);
      }
    };
    start();
    MainQueue& main = nembra_.mainQueue();
    while (true) {
      main.runUntil([&] { return endedCount() != ended_; }, std::chrono::milliseconds(100));
      size_t nowEnded = endedCount();
      running -= std::min(running, nowEnded - ended_);
      ended_ = nowEnded;
      start();
      board_.draw();
      if (ended_ == uploads_.size()) break;
    }
    return report();
  }

 private:
  size_t endedCount() const {
    return static_cast<size_t>(std::count_if(uploads_.begin(), uploads_.end(),
                                             [](const FileUpload& u) { return u.ended; }));
  }

  void prepare() {
    for (size_t i = 0; i < arguments_.files.size(); ++i) {
      FileUpload upload;
      upload.source = arguments_.files[i];
      // A file URL names a local path: "file://" goes, as the SDK strips it too.
      if (upload.source.rfind("file://", 0) == 0) upload.source.erase(0, 7);
      upload.type = arguments_.type.empty() ? Nembra::mediaTypeForPath(upload.source)
                                            : typeCode(arguments_.type);
      upload.line = board_.add(fs::path(upload.source).filename().string());
      std::error_code ec;
      if (fs::is_directory(upload.source, ec)) {
        upload.error = "is a directory; give the files in it";
      } else if (!fs::is_regular_file(upload.source, ec)) {
        upload.error = fs::exists(upload.source, ec) ? "not a regular file" : "no such file";
      } else if (upload.type == 0) {
        upload.error = "cannot tell the media type from the extension; give --type";
      } else if (arguments_.removeSource) {
        upload.handed = upload.source;
      } else {
        upload.handed = handOverPath(upload.source, i);
        upload.error = handOver(upload.source, upload.handed);
      }
      if (!upload.error.empty()) {
        upload.ended = true;
        board_.finish(upload.line, "failed");
      }
      uploads_.push_back(std::move(upload));
    }
  }

  FileUpload* find(const std::string& handed) {
    for (FileUpload& upload : uploads_) {
      if (upload.handed == handed && !upload.ended) return &upload;
    }
    return nullptr;
  }

  void end(FileUpload& upload, const std::string& error) {
    if (upload.ended) return;
    upload.ended = true;
    // The link is the SDK's business: messages name the file the user gave.
    upload.error = error;
    if (!upload.handed.empty() && upload.handed != upload.source) {
      for (size_t at; (at = upload.error.find(upload.handed)) != std::string::npos;) {
        upload.error.replace(at, upload.handed.size(), upload.source);
      }
    }
    board_.finish(upload.line, error.empty() ? "done" : "failed");
  }

  // Once the handler is done with them: the SDK's link or copy of a confirmed file, and of one
  // that failed for good, goes (the user's own file stays); one kept for `--resume` stays.
  void dropHandOvers() {
    for (const FileUpload& upload : uploads_) {
      if (upload.handed.empty() || upload.handed == upload.source) continue;
      if (nembra_.uploadingHandler().isUploading(upload.handed)) continue;
      if (!upload.error.empty() && keptForResume(upload)) continue;
      dropHandOver(upload.handed);
    }
  }

  // A transfer failed with "continue" keeps its file and record for `nembra upload --resume`.
  bool keptForResume(const FileUpload& upload) {
    for (const auto& record : nembra_.uploadingHandler().journal().load()) {
      if (record.path == upload.handed) return true;
    }
    return false;
  }

  void begin(FileUpload& upload) {
    upload.begun = true;
    FileUpload* target = &upload;
    nembra_.uploadingHandler().uploadWithType(
        upload.type, upload.handed, data_,
        [this, target](const std::optional<Json>& json, const HttpResponse& response,
                       const OptionalError& e) {
          OptionalError failure = e;
          if (!failure) failure = ReplyStatus::check("the upload URL request", response, json);
          if (failure) end(*target, failure->message);
        },
        [this, target](int64_t sent, int64_t expected) {
          board_.update(target->line, sent, expected);
        },
        [this, target](const std::optional<Json>& json, const HttpResponse& response,
                       const OptionalError& e) {
          end(*target, confirmFailure(json, response, e));
        });
  }

  void installDelegate() {
    delegate_ = std::make_shared<NembraUploadingDelegate>();
    delegate_->uploadStartedWithPath = [this](const std::string& path, const std::string& token,
                                              const std::string&, std::shared_ptr<HttpTask>) {
      if (FileUpload* upload = find(path)) {
        upload->token = token;
      } else if (arguments_.resume) {
        trackResumed(path).token = token;
      }
    };
    delegate_->uploadProgressWithPath = [this](const std::string& path, const std::string&,
                                               const std::string&, int64_t sent, int64_t expected) {
      if (arguments_.resume) {
        if (FileUpload* upload = find(path)) board_.update(upload->line, sent, expected);
      }
    };
    delegate_->uploadVerifiedWithPath = [this](const std::string& path, const std::string& token,
                                               const std::string&, const HttpResponse& response,
                                               const OptionalError& error,
                                               const std::optional<Json>& json) {
      if (!arguments_.resume) return;
      FileUpload* found = find(path);
      FileUpload& upload = found ? *found : trackResumed(path);
      upload.token = token;
      end(upload, confirmFailure(json, response, error));
    };
    // Names no file: whichever upload the handler no longer runs is the one that failed.
    delegate_->errorWithInfo = [this](const std::optional<Json>&, const Error& error,
                                      int32_t action) {
      for (FileUpload& upload : uploads_) {
        if (!upload.begun || upload.ended) continue;
        if (!nembra_.uploadingHandler().isUploading(upload.handed)) {
          std::string message = error.message;
          if (action == UPLOADING_ERROR_ACTION_CONTINUE_UPLOADING_MEDIA && keptForResume(upload)) {
            message += " (kept: `nembra upload --resume` tries again)";
          }
          end(upload, message);
          notified_ = action == UPLOADING_ERROR_ACTION_ERROR_NOTIFICATION;
        }
      }
    };
    delegate_->errorWithError = [this](const Error& error) {
      if (arguments_.resume) resumeErrors_.push_back(error.message);
    };
    nembra_.setUploadingDelegate(delegate_);
  }

  FileUpload& trackResumed(const std::string& path) {
    if (FileUpload* upload = find(path)) return *upload;
    FileUpload upload;
    upload.source = sourceOf(path);
    upload.handed = path;
    upload.begun = true;
    upload.line = board_.add(fs::path(upload.source).filename().string());
    uploads_.push_back(std::move(upload));
    return uploads_.back();
  }

  int resume() {
    size_t restarted = nembra_.resumeUnfinishedUploads();
    if (restarted == 0) {
      std::cerr << "nembra upload: no unfinished uploads for application \"" << nembra_.token()
                << "\"\n";
      return 0;
    }
    std::cerr << "nembra upload: restarting " << restarted << " unfinished upload(s)\n";
    MainQueue& main = nembra_.mainQueue();
    while (nembra_.uploadingHandler().activeUploadCount() > 0) {
      main.runUntil([] { return false; }, std::chrono::milliseconds(100));
      board_.draw();
    }
    main.runUntilIdle();
    for (const std::string& error : resumeErrors_) {
      std::cerr << "nembra upload: " << error << "\n";
    }
    int code = report();
    size_t confirmed = static_cast<size_t>(
        std::count_if(uploads_.begin(), uploads_.end(),
                      [](const FileUpload& u) { return u.ended && u.error.empty(); }));
    return confirmed == restarted && code == 0 ? 0 : 1;
  }

  int report() {
    dropHandOvers();
    if (notified_) {
      // The failure notification is delivered a second after it is posted.
      nembra_.mainQueue().runUntil([] { return false; }, std::chrono::milliseconds(1300));
    }
    int failures = 0;
    Json results = Json::array();
    for (const FileUpload& upload : uploads_) {
      if (!upload.error.empty()) {
        ++failures;
        std::cerr << "nembra upload: " << upload.source << ": " << upload.error << "\n";
      } else if (!context_.options.json) {
        std::cout << upload.token << "\t" << upload.source << "\n";
      }
      results.push_back({{"file", upload.source},
                         {"type", mediaTypeName(upload.type)},
                         {"token", upload.token},
                         {"ok", upload.error.empty()},
                         {"error", upload.error}});
    }
    if (context_.options.json) std::cout << results.dump(2) << "\n";
    return failures == 0 ? 0 : 1;
  }

  CliContext& context_;
  const UploadArguments& arguments_;
  Nembra& nembra_;
  ProgressBoard board_;
  Json data_;
  std::shared_ptr<NembraUploadingDelegate> delegate_;
  // A deque: callbacks keep pointers to its elements while more are added.
  std::deque<FileUpload> uploads_;
  std::vector<std::string> resumeErrors_;
  size_t ended_ = 0;
  bool notified_ = false;
};

}  // namespace

void registerUploadCommand(CLI::App& app, CliContext& context, int& exitCode) {
  auto arguments = std::make_shared<UploadArguments>();
  auto* command = app.add_subcommand(
      "upload",
      "Upload media files (upload URL, storage form, confirm) and print each media token.\n"
      "Uploads a killed run left are finished by `nembra upload --resume`.");
  command->add_option("FILE", arguments->files, "Files to upload");
  command->add_option("--type", arguments->type, "Media type (default: from the extension)")
      ->check(CLI::IsMember({"video", "audio", "image"}));
  command->add_option("--extra", arguments->extra, "Extra request argument name=value")->take_all();
  command->add_flag("--wifi-only", arguments->wifiOnly, "Hold transfers while only cellular is up");
  command->add_option("--on-lost", arguments->onLost, "What a failed transfer does with its file")
      ->check(CLI::IsMember({"continue", "reload", "notify", "delete"}))
      ->capture_default_str();
  command->add_option("--parallel", arguments->parallel, "Uploads at once")
      ->check(CLI::Range(1, 1000))
      ->capture_default_str();
  command->add_flag("--remove-source", arguments->removeSource,
                    "Hand the files themselves to the SDK, which deletes each once confirmed");
  command->add_flag("--resume", arguments->resume,
                    "Finish the uploads an earlier run with this token left unfinished");
  command->callback([&context, &exitCode, arguments] {
    UploadRun run(context, *arguments);
    exitCode = run.run();
  });
}

}  // namespace nembra
