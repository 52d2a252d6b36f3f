// A file to attach to an e-mail: where it is, its MIME type and the name the recipient sees.
//
// Threading: a plain value; any thread.
#pragma once

#include <string>

namespace nembra {

class FileInfoData {
 public:
  FileInfoData() = default;
  // initWithPath: a local file.
  FileInfoData(std::string path, std::string mimeType, std::string name);
  static FileInfoData initWithPath(std::string path, std::string mimeType, std::string name);
  // A file given by URL; |path| stays empty.
  static FileInfoData initWithUrl(std::string url, std::string mimeType, std::string name);

  std::string path;
  std::string url;
  std::string mimeType;
  std::string name;
};

}  // namespace nembra
