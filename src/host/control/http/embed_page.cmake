# cmake -D FOLDER=... -D OUT=... -P embed_page.cmake: writes the files of FOLDER as a C++ source.
file(GLOB files RELATIVE "${FOLDER}" "${FOLDER}/*")
list(FILTER files EXCLUDE REGEX "\\.md$")
list(SORT files)
set(arrays "")
set(table "")
foreach(file IN LISTS files)
  if(file MATCHES "\\.html$")
    set(type "text/html; charset=utf-8")
  elseif(file MATCHES "\\.css$")
    set(type "text/css; charset=utf-8")
  elseif(file MATCHES "\\.js$")
    set(type "text/javascript; charset=utf-8")
  elseif(file MATCHES "\\.svg$")
    set(type "image/svg+xml")
  else()
    message(FATAL_ERROR "no content type is known for ${file}")
  endif()
  file(SHA256 "${FOLDER}/${file}" digest)
  string(SUBSTRING "${digest}" 0 32 digest)
  file(READ "${FOLDER}/${file}" hex HEX)
  string(REGEX REPLACE "(..)" "0x\\1," bytes "${hex}")
  string(REGEX REPLACE "[^a-z0-9]" "_" array "${file}")
  string(APPEND arrays "constexpr unsigned char k_${array}[] = {${bytes}};\n")
  string(APPEND table "      PageFile{\"${file}\", \"${type}\", \"\\\"${digest}\\\"\", TextOf(k_${array})},\n")
endforeach()
file(WRITE "${OUT}" "// Generated from the files of the page.
#include \"host/control/http/page_files.h\"

#include <array>
#include <cstddef>

namespace host::control::http {

namespace {

${arrays}
template <std::size_t kSize>
std::string_view TextOf(const unsigned char (&bytes)[kSize]) {
  return {reinterpret_cast<const char*>(bytes), kSize};
}

}  // namespace

std::span<const PageFile> PageFiles() {
  static const std::array files{
${table}  };
  return files;
}

}  // namespace host::control::http
")
