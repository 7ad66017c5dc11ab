// SPDX-License-Identifier: Apache-2.0
#include "Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>

namespace vorlix::tool {
namespace {

bool showsColors() {
  if (isatty(STDOUT_FILENO) != 1) return false;
  const char* const refusal = std::getenv("NO_COLOR");
  if (refusal != nullptr && *refusal != '\0') return false;
  const char* const kind = std::getenv("TERM");
  return kind != nullptr && *kind != '\0' && std::string_view(kind) != "dumb";
}

const char* codeOf(Color color) {
  switch (color) {
    case Color::red:
      return "\033[31m";
    case Color::green:
      return "\033[32m";
    case Color::yellow:
      return "\033[33m";
  }
  return "";
}

}  // namespace

std::optional<size_t> outputWidth() {
  struct winsize size = {};
  if (isatty(STDOUT_FILENO) != 1 || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) {
    return std::nullopt;
  }
  return size.ws_col;
}

bool showsUTF8() {
  for (const char* const name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    const char* const value = std::getenv(name);
    if (value == nullptr || *value == '\0') continue;
    const std::string_view locale(value);
    const std::string_view encoding = locale.substr(std::min(locale.find('.'), locale.size()));
    return encoding.starts_with(".UTF-8") || encoding.starts_with(".utf8");
  }
  return false;
}

std::string colored(const std::string& text, Color color) {
  static const bool isShown = showsColors();
  return isShown ? codeOf(color) + text + "\033[0m" : text;
}

}  // namespace vorlix::tool
