#include "service/form_params.h"

#include "api/percent_encoding.h"

namespace nembra {

std::optional<std::string> percentDecode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out.push_back(text[i]);
      continue;
    }
    int high = i + 1 < text.size() ? hexDigitValue(text[i + 1]) : -1;
    int low = i + 2 < text.size() ? hexDigitValue(text[i + 2]) : -1;
    if (high < 0 || low < 0) return std::nullopt;
    out.push_back(static_cast<char>(high * 16 + low));
    i += 2;
  }
  return out;
}

Result<FormParams> FormParams::parse(std::string_view text) {
  FormParams params;
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find('&', start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view piece = text.substr(start, end - start);
    start = end + 1;
    if (piece.empty()) continue;
    size_t equals = piece.find('=');
    auto name = percentDecode(piece.substr(0, equals));
    auto value = percentDecode(equals == std::string_view::npos ? std::string_view()
                                                                : piece.substr(equals + 1));
    if (!name || !value) {
      return Error::invalidArgument("malformed percent-encoding in parameter \"" +
                                    std::string(piece.substr(0, 64)) + "\"");
    }
    if (name->find('\0') != std::string::npos || value->find('\0') != std::string::npos) {
      return Error::invalidArgument("NUL byte in parameter \"" + std::string(piece.substr(0, 64)) +
                                    "\"");
    }
    params.add(std::move(*name), std::move(*value));
  }
  return params;
}

void FormParams::append(const FormParams& other) {
  pairs_.insert(pairs_.end(), other.pairs_.begin(), other.pairs_.end());
}

void FormParams::add(std::string name, std::string value) {
  pairs_.emplace_back(std::move(name), std::move(value));
}

std::optional<std::string> FormParams::get(std::string_view name) const {
  for (const auto& [key, value] : pairs_) {
    if (key == name) return value;
  }
  return std::nullopt;
}

}  // namespace nembra
