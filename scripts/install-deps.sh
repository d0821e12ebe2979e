#!/usr/bin/env bash
# Installs, from Debian packages, whatever the build and the tests need and
# the machine lacks. Safe to run again; needs root (or sudo) only when
# something is missing. With the argument "multihost": what the multi-host
# stage needs instead (namespaces, an SFTP server, sshfs, a clock skewer);
# with "glusterfs": what the GlusterFS stage needs (namespaces, the servers
# and the FUSE client, a clock skewer).
set -euo pipefail

packages=(cmake ninja-build g++ pkg-config libboost-thread-dev libgtest-dev libgmock-dev
          libbenchmark-dev clang-format clang-tidy
          groff-base dpkg-dev lintian)  # korvel-lock's manual page; the Debian packages
case "${1:-}" in
  multihost) packages=(iproute2 openssh-server sshfs libfaketime) ;;
  glusterfs) packages=(iproute2 glusterfs-server glusterfs-client libfaketime) ;;
esac
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi
echo "installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
