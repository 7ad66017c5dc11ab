// SPDX-License-Identifier: Apache-2.0
#include "Format.h"

#include <Vorlix/foundation/HexDigits.h>
#include <Vorlix/foundation/Utf8.h>

#include <filesystem>
#include <utility>

namespace vorlix::archive {
namespace {

// Characters that are not percent-encoded in the path of a URL (RFC 3986): unreserved, sub-delims except ";", ":", "@"
// and "/". Some readers would treat ";" as the start of parameters.
constexpr std::string_view kPlain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~!$&'()*+,=:@/";
constexpr std::string_view kScheme = "file:";

std::optional<std::string> percentDecoded(std::string_view text) {
  std::string path;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      path += text[i];
      continue;
    }
    if (i + 2 >= text.size()) return std::nullopt;
    const int high = hexDigitValue(text[i + 1]);
    const int low = hexDigitValue(text[i + 2]);
    if (high < 0 || low < 0) return std::nullopt;
    path += static_cast<char>(high * 16 + low);
    i += 2;
  }
  if (path.find('\0') != std::string::npos) return std::nullopt;
  return path;
}

bool hasScheme(std::string_view text) {
  const size_t colon = text.find(':');
  return colon != std::string_view::npos && text.find_first_of("/?#") > colon;
}

// The URL of a folder ends in a slash, but the path of a URL object does not.
URL pathURL(std::string path) {
  const bool isDirectory = path.ends_with('/');
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return URL::fileURLWithPath(std::move(path), isDirectory);
}

}  // namespace

std::string wholeText(std::string_view text) {
  std::string whole;
  for (const char unit : repairedUtf8(text)) {
    if (unit == '\0') {
      whole += "\xEF\xBF\xBD";
    } else {
      whole += unit;
    }
  }
  return whole;
}

std::string urlText(const URL& url) {
  std::string text = "file://";
  for (const char unit : url.path()) {
    const auto byte = static_cast<uint8_t>(unit);
    if (kPlain.find(unit) != std::string_view::npos) {
      text += unit;
    } else {
      text += '%';
      appendUpperHex(text, byte);
    }
  }
  if (url.hasDirectoryPath() && !text.ends_with('/')) text += '/';
  return text;
}

std::optional<URL> urlOfText(std::string_view text, const URL* base) {
  text = text.substr(0, text.find_first_of("?#"));
  const bool absolute = text.starts_with(kScheme);
  if (absolute) {
    text.remove_prefix(kScheme.size());
    if (text.starts_with("//")) {
      text.remove_prefix(2);
      constexpr std::string_view kHere = "localhost";
      if (text.starts_with(kHere)) text.remove_prefix(kHere.size());
    }
    if (!text.starts_with('/')) return std::nullopt;
  } else if (hasScheme(text) || text.starts_with("//") || base == nullptr) {
    return std::nullopt;
  }
  const auto path = percentDecoded(text);
  if (!path) return std::nullopt;
  if (absolute) return pathURL(*path);
  if (path->empty()) return *base;
  const std::filesystem::path whole(base->path());
  const std::filesystem::path folder = base->hasDirectoryPath() ? whole : whole.parent_path();
  return pathURL((folder / *path).lexically_normal().string());  // an absolute path ignores the folder
}

}  // namespace vorlix::archive
