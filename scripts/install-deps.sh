#!/usr/bin/env bash
# Installs the Debian 12 packages the build, the tests and the demo need, only those missing.
# Not root: prints the exact command instead of running it.
set -euo pipefail

packages=(
  build-essential cmake pkg-config git ccache
  libcurl4-openssl-dev libssl-dev zlib1g-dev nlohmann-json3-dev libsqlite3-dev libasio-dev
  libopencv-dev libcpp-httplib-dev libcli11-dev libgtest-dev libgmock-dev libbenchmark-dev
  libdeflate-dev libboost-dev libpng-dev python3 python3-onnx python3-numpy nodejs npm wrk
  locales clang-14 libclang-rt-14-dev libeigen3-dev libhnswlib-dev
)
# A headless browser renders the demo's HTML report once in the tests (skipped without one). About
# 290 MB installed, so only on request: OMRA_WITH_BROWSER=1 (the CI sets it).
if [ "${OMRA_WITH_BROWSER:-0}" = 1 ]; then
  packages+=(chromium)
fi

# The locale tests run under a comma-decimal locale, as GTK and Qt hosts set it.
ensure_test_locale() {
  locale -a 2>/dev/null | grep -qi '^de_DE\.utf-\?8$' && return 0
  if [ "$(id -u)" -ne 0 ]; then
    echo "The de_DE.UTF-8 locale is missing (its tests are skipped). Run as root:" >&2
    echo "  sed -i 's/^# *de_DE.UTF-8/de_DE.UTF-8/' /etc/locale.gen && locale-gen" >&2
    return 0
  fi
  if ! grep -q '^de_DE.UTF-8' /etc/locale.gen 2>/dev/null; then
    if grep -q '^# *de_DE.UTF-8' /etc/locale.gen 2>/dev/null; then
      sed -i 's/^# *de_DE.UTF-8/de_DE.UTF-8/' /etc/locale.gen
    else
      echo 'de_DE.UTF-8 UTF-8' >>/etc/locale.gen
    fi
  fi
  locale-gen >/dev/null
}

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    # node and npm may come from elsewhere (nodesource); a working binary is enough.
    case "$p" in
      nodejs) command -v node >/dev/null && continue ;;
      npm) command -v npm >/dev/null && continue ;;
    esac
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  ensure_test_locale
  exit 0
fi

cmd="apt-get install -y --no-install-recommends ${missing[*]}"
if [ "$(id -u)" -ne 0 ]; then
  echo "Missing packages. Run as root:" >&2
  echo "  apt-get update && $cmd" >&2
  exit 1
fi
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
# shellcheck disable=SC2086
$cmd -qq
ensure_test_locale
