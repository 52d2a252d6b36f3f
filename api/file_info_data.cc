#include "nembra/file_info_data.h"

namespace nembra {

FileInfoData::FileInfoData(std::string path, std::string mimeType, std::string name)
    : path(std::move(path)), mimeType(std::move(mimeType)), name(std::move(name)) {}

FileInfoData FileInfoData::initWithPath(std::string path, std::string mimeType, std::string name) {
  return FileInfoData(std::move(path), std::move(mimeType), std::move(name));
}

FileInfoData FileInfoData::initWithUrl(std::string url, std::string mimeType, std::string name) {
  FileInfoData file;
  file.url = std::move(url);
  file.mimeType = std::move(mimeType);
  file.name = std::move(name);
  return file;
}

}  // namespace nembra
