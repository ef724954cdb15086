#!/usr/bin/env bash
# Installs what Harborlattice needs to build, test and run, from Debian's
# packages and the npm registry. Safe to run again: it installs only what is
# missing, and stops with a clear message when something cannot be installed.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(
  g++ cmake ninja-build ccache pkg-config git clang-format
  libsqlite3-dev nlohmann-json3-dev libgtest-dev libgmock-dev
  qt6-base-dev qt6-webengine-dev qt6-webchannel-dev
  xvfb xauth tmux procps chromium
  qt6-svg-dev desktop-file-utils appstream dpkg-dev lintian x11-utils
  apache2 openssl
  libsodium-dev python3 dbus-daemon
  fonts-noto-color-emoji fonts-dejavu-core
  clang libclang-rt-14-dev
  openssh-server openssh-client rsync libnss-wrapper
  qtkeychain-qt6-dev gnome-keyring libsecret-tools
)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done
# Node.js and npm for the terminal document's packages, unless a Node.js that
# carries its own npm is already there.
command -v npm >/dev/null 2>&1 || missing+=(nodejs npm)

if [ ${#missing[@]} -gt 0 ]; then
  echo "install-deps: installing ${missing[*]}"
  sudo=""
  if [ "$(id -u)" -ne 0 ]; then
    if command -v sudo >/dev/null 2>&1; then sudo="sudo"; else
      echo "install-deps: these packages are missing and this user cannot install them: ${missing[*]}" >&2
      exit 1
    fi
  fi
  export DEBIAN_FRONTEND=noninteractive
  if ! $sudo apt-get update -qq; then
    echo "install-deps: apt-get update failed; cannot install ${missing[*]}" >&2
    exit 1
  fi
  if ! $sudo apt-get install -y -qq "${missing[@]}" >/tmp/harborlattice-apt.log 2>&1; then
    tail -20 /tmp/harborlattice-apt.log >&2
    echo "install-deps: apt-get install failed for ${missing[*]} (log: /tmp/harborlattice-apt.log)" >&2
    exit 1
  fi
fi

# Front-end packages of the terminal document, pinned by the committed lock file.
if [ -f web/package-lock.json ]; then
  if ! command -v npm >/dev/null 2>&1; then
    echo "install-deps: npm is missing; install Debian's npm package" >&2
    exit 1
  fi
  if [ ! -d web/node_modules ] || [ web/package-lock.json -nt web/node_modules/.package-lock.json ]; then
    (cd web && npm ci --no-audit --no-fund --loglevel=error) || {
      echo "install-deps: npm ci in web/ failed" >&2
      exit 1
    }
  fi
fi
