// What the audios and images resources share: the upload handler's type-parametrised
// operations for one media type, with the answers turned into that type's model.
//
// Answers reach the callbacks as the connection delivers them: an HTTP error status is an
// ordinary answer, for the caller to read from the response.
//
// Threading: call from the main queue. Model-returning operations (index, get, update) convert
// the answer and call back on the main queue; destroy calls back on the connection's callback
// queue; download and create behave as the upload handler's operations.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "nembra/application.h"
#include "nembra/json.h"
#include "nembra/nembra_uploading_handler.h"

namespace nembra {

template <typename Model, int Type>
class MediaEndpoint {
 public:
  using TaskHandle = NembraUploadingHandler::TaskHandle;
  using JsonCallback = NembraUploadingHandler::JsonCallback;
  using StringCallback = NembraUploadingHandler::StringCallback;
  using ProgressCallback = NembraUploadingHandler::ProgressCallback;
  using DownloadCallback = NembraUploadingHandler::DownloadCallback;
  using ModelsCallback = std::function<void(
      const std::vector<Model>& models, const HttpResponse& response, const OptionalError& error)>;
  using ModelCallback = std::function<void(const Model& model, const HttpResponse& response,
                                           const OptionalError& error)>;

  explicit MediaEndpoint(Nembra& application) : application_(application) {}
  virtual ~MediaEndpoint() = default;

  // One model per element of the answer, in order. An answer that is not a JSON array (an
  // empty "[]" included, which the connection hands over as no JSON) gives no models, with the
  // answer's own error.
  TaskHandle index(const Json& data, ModelsCallback callback) {
    return handler().indexWithType(
        Type, data,
        onMain([callback](const std::optional<Json>& json, const HttpResponse& response,
                          const OptionalError& error) {
          std::vector<Model> models;
          if (json && json->is_array()) {
            for (const Json& element : *json) models.push_back(Model::initWithJson(element));
          }
          if (callback) callback(models, response, error);
        }));
  }
  TaskHandle index(const Json& data, StringCallback stringCallback) {
    return handler().indexWithType(
        Type, data,
        StringCallback([this, stringCallback](const std::optional<std::string>& text,
                                              const HttpResponse& response,
                                              const OptionalError& error) {
          application_.mainQueue().async([stringCallback, text, response, error] {
            if (stringCallback) stringCallback(text, response, error);
          });
        }));
  }
  TaskHandle get(const std::string& token, const Json& data, ModelCallback callback) {
    return handler().getWithType(Type, token, data, modelOnMain(std::move(callback)));
  }
  void download(const std::string& token, DownloadCallback callback) {
    handler().downloadWithType(Type, token, std::move(callback));
  }
  // DELETE "<base>/<token>": the empty stream token names the resource itself.
  TaskHandle destroy(const std::string& token, JsonCallback callback) {
    return handler().deleteWithType(Type, token, std::string(), std::move(callback));
  }
  TaskHandle update(const std::string& token, const Json& data, ModelCallback callback) {
    return handler().updateWithType(Type, token, std::string(), data,
                                    modelOnMain(std::move(callback)));
  }
  // With the model's own token (an empty one posts to the base followed by a lone "/") and its
  // toDictionary as data.
  TaskHandle update(const Model& model, ModelCallback callback) {
    return update(model.token, model.toDictionary(), std::move(callback));
  }
  // Uploads the local file at |path| (the upload handler's flow).
  TaskHandle create(const std::string& path, const Json& data, JsonCallback callback,
                    ProgressCallback progress, JsonCallback confirmCallback) {
    return handler().uploadWithType(Type, path, data, std::move(callback), std::move(progress),
                                    std::move(confirmCallback));
  }

 protected:
  std::string mediaUrl(const std::string& token) { return handler().getPathWithType(Type, token); }
  NembraUploadingHandler& handler() { return application_.uploadingHandler(); }

  Nembra& application_;

 private:
  // Runs |body| on the main queue with the connection's answer.
  template <typename Body>
  JsonCallback onMain(Body body) {
    MainQueue* main = &application_.mainQueue();
    return [main, body](const std::optional<Json>& json, const HttpResponse& response,
                        const OptionalError& error) {
      main->async([body, json, response, error] { body(json, response, error); });
    };
  }
  JsonCallback modelOnMain(ModelCallback callback) {
    return onMain([callback](const std::optional<Json>& json, const HttpResponse& response,
                             const OptionalError& error) {
      Model model = Model::initWithJson(json && json->is_object() ? *json : Json::object());
      if (callback) callback(model, response, error);
    });
  }
};

}  // namespace nembra
