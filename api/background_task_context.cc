#include "api/background_task_context.h"

namespace nembra {

BackgroundTaskContext::BackgroundTaskContext(CompletionHandler completionHandler,
                                             ProgressHandler progressHandler,
                                             std::shared_ptr<HttpTask> task)
    : backgroundTaskCompletionHandler(std::move(completionHandler)),
      backgroundTaskProgressHandler(std::move(progressHandler)),
      task(std::move(task)) {}

}  // namespace nembra
