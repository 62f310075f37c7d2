#!/usr/bin/env bash
# Who may include whom: every #include of the sources is held against the table below, and the
# operating system and third-party libraries against the folders that may know them.
set -euo pipefail
cd "$(dirname "$0")/../.."

# folder: the folders and single files (besides its own) that it may include; a folder without a rule
# belongs to the one above it
rules='
platform/com          =
platform/os           =
platform/dshow        = platform/com
platform/baseclasses  = platform/com platform/os platform/dshow
platform/graph        = platform/com platform/os platform/dshow platform/baseclasses
platform/text         = platform/os
util                  = platform/com platform/os platform/dshow platform/baseclasses
log                   = util platform
sync                  = util platform
media                 = util platform
audio                 =
render                = render/kernels util platform/text platform/os
render/kernels        =
pins                  = media sync log util platform
filter                = pins render media sync log audio util platform
host                  = host/cli host/output/screen host/ffmpeg util platform
host/ffmpeg           = util platform/os host/units.h
host/config           = util platform log host/units.h render/label_font.h
host/feed             = log util platform host/ffmpeg host/units.h pins/streams.h
host/channel          = host/channel log util platform host/feed host/config host/ffmpeg host/units.h
host/channel/source   = util host/ffmpeg host/config host/units.h platform/os/charset.h platform/os/mutex.h platform/os/thread.h
host/channel/video    = util host/channel/source/media_info.h host/config host/ffmpeg host/units.h
host/channel/audio    = host/channel/source/media_info.h host/feed audio host/ffmpeg host/units.h
host/channel/slate    = platform/text util host/units.h
host/output           = log util platform host/feed host/config host/ffmpeg host/units.h
host/output/screen/window = platform/os host/output/screen host/ffmpeg host/units.h
host/session          = log util platform host/channel host/output host/feed host/config host/ffmpeg host/units.h filter/i_compose_command.h pins/streams.h
host/control          = util platform/os host/session host/output/screen/screen_input.h host/channel host/config host/ffmpeg host/units.h
host/control/http     = util platform/os host/control host/config host/output/fragments.h host/ffmpeg host/units.h
host/cli              = log util platform host/control host/session host/channel host/output host/feed host/config host/ffmpeg host/units.h
'

git grep -nE '^#(include|if)' -- 'src/*.h' 'src/*.cpp' | awk -v rules="$rules" '
  function folder(path) {
    do {
      sub(/\/?[^\/]*$/, "", path)
    } while (path != "" && !(path in allowed))
    return path
  }
  function may(from, target,    list, count, i) {
    count = split(allowed[from], list, " ")
    for (i = 1; i <= count; i++) {
      if (target == list[i] || index(target, list[i] "/") == 1) return 1
    }
    return 0
  }
  function fault(what) { print $1 ":" $2 ": " what > "/dev/stderr"; faults++ }
  BEGIN {
    FS = ":"
    lines = split(rules, line, "\n")
    for (i = 1; i <= lines; i++) {
      if (split(line[i], sides, "=") == 2) {
        gsub(/ /, "", sides[1])
        allowed[sides[1]] = sides[2]
      }
    }
  }
  {
    path = substr($1, 5)  # below src/
    from = folder(path)
    if (from == "") fault("no rule for its folder")
    if (!(path in seen)) { seen[path] = 1; files++ }
  }
  $3 ~ /^#include "/ {
    target = $3
    sub(/^#include "/, "", target)
    sub(/".*/, "", target)
    if (path ~ /^filter\/frame_composer\./ && target == "filter/compose.h") {
      fault("what a frame is composed with does not know the filter")
    }
    if (folder(target) == from) next
    if (!may(from, target)) fault(from " may not include " target)
  }
  $3 ~ /^#include <(pango|cairo|fontconfig|glib|ft2build|freetype)/ && from != "platform/text" {
    fault("only platform/text knows the text libraries")
  }
  $3 ~ /^#include <lib(av|sw)/ && path !~ /^host\/(ffmpeg|feed|channel|output|session|cli\/demo)\// {
    fault("FFmpeg is not known here")
  }
  $3 ~ /^#include <SDL/ && from != "host/output/screen/window" {
    fault("the display is known in host/output/screen/window only")
  }
  $3 ~ /^#include <(boost|openssl)\// && from != "host/control/http" {
    fault("Boost and OpenSSL are known in host/control/http only")
  }
  $3 ~ /^#include <(sys\/|linux\/|net(db|inet)|arpa\/|(dlfcn|fcntl|poll|pthread|signal|syslog|termios|unistd)\.h)/ &&
      path !~ /^platform\// {
    fault("only src/platform knows the operating system")
  }
  $3 ~ /^#if.*(__linux__|_WIN32|__unix__|__APPLE__)/ && path !~ /^platform\// {
    fault("no #ifdef of an operating system outside src/platform")
  }
  END {
    if (files < 50) { print "only " files " files were looked at" > "/dev/stderr"; faults++ }
    if (faults) exit 1
    print files " files keep to the include rules"
  }'
