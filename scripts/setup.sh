#!/usr/bin/env bash
# Installs the Debian packages the project needs (only those missing), then configures and builds
# one CMake preset: everything, or only the targets named after the preset.
# Usage: scripts/setup.sh [preset [target...]]   (default preset: dev; `setup.sh dev kltce` builds
# just the tool, which is all the quick start's replay needs)
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-dev}"
targets=("${@:2}")

packages=(build-essential cmake git pkg-config nlohmann-json3-dev libicu-dev libsqlite3-dev libsimdjson-dev
          libcli11-dev libvalijson-dev libgtest-dev libgmock-dev libbenchmark-dev libhowardhinnant-date-dev
          libopenmpi-dev openmpi-bin libmimalloc-dev libssl-dev procps util-linux libcjson-dev)
# procps (pgrep) and util-linux (flock) serve the tool's end-to-end tests of signals and locks.
# libcjson-dev: the C host test reads its JSON with it. The Java binding (bindings/java) is built
# with the JDK and tested with JUnit 5's console launcher, its tests reading JSON with Gson: only
# for a whole build (a build of named targets, such as the quick start's tool, needs no JDK).
if ((${#targets[@]} == 0)); then packages+=(default-jdk-headless junit5 libgoogle-gson-java); fi
# The fuzz preset builds with clang and links its libFuzzer runtime.
if [ "$preset" = fuzz ]; then packages+=(clang libclang-rt-14-dev); fi
# The HTML reports are checked in headless Chromium (ctest label "browser", dev and release builds),
# driven by node with playwright-core from npm.
browser_checks=false
if { [ "$preset" = dev ] || [ "$preset" = release ]; } && ((${#targets[@]} == 0)); then
  browser_checks=true
  packages+=(chromium)
  command -v node >/dev/null || packages+=(nodejs npm)
fi
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}" >&2
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  "${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
  "${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# playwright-core as the lock file pins it, into tests/browser/node_modules; again only when the
# lock file changed. Without the registry the browser checks are skipped, not failed.
if $browser_checks && command -v npm >/dev/null; then
  lock=tests/browser/package-lock.json stamp=tests/browser/node_modules/.installed-lock.json
  if ! cmp -s "$lock" "$stamp" 2>/dev/null; then
    if (cd tests/browser && npm ci --no-audit --no-fund --loglevel=error >/dev/null); then
      cp "$lock" "$stamp"
    else
      echo "setup: npm ci failed in tests/browser: the browser checks will be skipped" >&2
    fi
  fi
fi

cmake --preset "$preset" >/dev/null
if ((${#targets[@]})); then
  cmake --build --preset "$preset" -j "$(nproc)" --target "${targets[@]}"
else
  cmake --build --preset "$preset" -j "$(nproc)"
fi
