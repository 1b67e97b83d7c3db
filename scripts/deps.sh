#!/bin/bash
# Installs the Debian packages the build and the tests need, through sudo
# when not root. Quiet when everything is already there.
set -euo pipefail
packages=(
  build-essential cmake ninja-build pkg-config
  clang clang-14 libclang-rt-14-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  libjsoncpp-dev liblmdb-dev
  libcurl4-openssl-dev  # the end-to-end tests; url_codec_bench compares with libcurl
  lighttpd curl
  nginx fcgiwrap apache2  # the end-to-end tests behind the other documented servers
  libpam0g-dev libpam-modules libpam-pwdfile  # logins through PAM; the demo's password file
  libcrypt-dev  # link passwords: crypt.h (libcrypt itself is loaded when a password is checked)
  libpam-wrapper libnss-wrapper libuid-wrapper  # test users, groups, PAM modules and id switching
  openssl  # the demo hashes its password with openssl passwd
  lintian  # the Debian packages' test
  chromium python3-websockets  # the admin page's test in a real browser
)
missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0
sudo=
[ "$(id -u)" -eq 0 ] || sudo=sudo
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null

# The end-to-end tests start their own servers on free loopback ports; a
# service that installing a server package started (where policy allows
# it) is stopped and disabled, so it holds no port and takes no requests.
for package in nginx fcgiwrap apache2; do
  [[ " ${missing[*]} " == *" $package "* ]] || continue
  for service in "$package" "$package.socket"; do
    if [ -d /run/systemd/system ]; then
      $sudo systemctl disable --now "$service" >/dev/null 2>&1 || true
    elif [ -x "/etc/init.d/$service" ]; then
      $sudo service "$service" stop >/dev/null 2>&1 || true
    fi
  done
done
