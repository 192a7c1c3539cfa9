#!/usr/bin/env bash
# Installs everything that building, testing and running needs, on Debian 12. Asks for nothing.
# Root, or a user who may run sudo.
set -euo pipefail

packages=(
  build-essential g++ clang clang-format clang-tidy libclang-rt-14-dev cmake ninja-build ccache pkg-config
  libboost-dev liblog4cplus-dev libspdlog-dev libfmt-dev libcfitsio-dev zlib1g-dev libopenblas-dev libnuma-dev
  libmsgsl-dev libyaml-cpp-dev libcli11-dev nlohmann-json3-dev libhwy-dev libpng-dev libgtest-dev libgmock-dev
  iproute2
)

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q '^install ok installed' || missing+=("$package")
done
[ "${#missing[@]}" -eq 0 ] && exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "missing, for root to install with $0: ${missing[*]}" >&2; exit 1; }
  as_root=(sudo)
fi
echo "installing: ${missing[*]}"
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
