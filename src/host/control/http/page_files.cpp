#include "host/control/http/page_files.h"

#include <algorithm>

namespace host::control::http {

Answer PageAnswer(const std::string& name, const Head& head) {
  const std::string wanted = name.empty() ? "index.html" : name;
  const std::span<const PageFile> files = PageFiles();
  const auto file = std::find_if(files.begin(), files.end(),
                                 [&](const PageFile& one) { return one.name == wanted; });
  if (file == files.end()) {
    throw Problem(404, "unknown-path", "There is nothing here",
                  "the page has no file \"" + wanted + "\"");
  }
  Answer answer;
  answer.contentType = file->type;
  // Another version of the program may have other files: the browser asks every time.
  answer.fields = {{"ETag", std::string(file->tag)}, {"Cache-Control", "no-cache"}};
  if (head.ifNoneMatch.find(file->tag) != std::string::npos) {
    answer.status = 304;
  } else {
    answer.body = file->content;
  }
  return answer;
}

}  // namespace host::control::http
