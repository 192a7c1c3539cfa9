#!/usr/bin/env bash
# What takes seconds: clang-format, and the direction of includes: platform <- common <- the blocks <- lumolib <- host.
# The rig knows platform and common; within it: cameras, telescope, report <- peers <- judge.
set -euo pipefail
cd "$(dirname "$0")/.."
git ls-files '*.cpp' '*.hpp' | xargs clang-format --dry-run --Werror

status=0
# forbid FOLDERS PATTERN: no source below them includes such a header.
forbid() {
  # shellcheck disable=SC2086
  if git grep -nE "#include [<\"]($2)" -- $1; then
    echo "$1: includes point the wrong way" >&2
    status=1
  fi
}

blocks='vosk/(ao_tasks|image_processing|signal_processing)/'
forbid platform "lumolib/|$blocks|vosk/(common|defs)/"
forbid common "lumolib/|$blocks"
forbid 'vosk_ao_tasks vosk_image_processing vosk_signal_processing' 'lumolib/|pktwire/'
forbid vosk_ao_tasks 'vosk/(image_processing|signal_processing)/'
forbid vosk_image_processing 'vosk/(ao_tasks|signal_processing)/'
forbid vosk_signal_processing 'vosk/(ao_tasks|image_processing)/'
forbid rig/src "lumolib/|$blocks"
forbid 'rig/src/cameras rig/src/telescope rig/src/report rig/src/host' '(peers|judge)/'
forbid rig/src/peers 'judge/'
exit $status
