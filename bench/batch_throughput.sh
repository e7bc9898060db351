#!/bin/bash
# Batch throughput (skipped when the data folder is absent): the ten benchmark photos, each with
# a coarse mask as a segmentation model leaves it (ground truth cut at 128, opened and closed by
# 9 pixels, blurred with sigma 3), through `qxmatte batch` with -j 1 and -j 2 into fresh folders:
# photos a minute, and a second run that finds every output current.
#
#   bench/batch_throughput.sh [BUILD_DIR]
set -eu
build=${1:-build}
data=$(cd "$(dirname "$0")/../.." && pwd)/shared/data/alphamatting
[ -d "$data/input" ] || { echo "batch benchmark: $data is absent, nothing to measure"; exit 0; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/in"
/usr/bin/python3 - "$data" "$work/in" <<'PY'
import sys, shutil, numpy as np
from PIL import Image, ImageFilter
data, out = sys.argv[1], sys.argv[2]
for i in range(1, 11):
    name = "GT%02d" % i
    shutil.copy("%s/input/%s.png" % (data, name), "%s/%s.png" % (out, name))
    m = Image.fromarray(np.where(np.asarray(Image.open("%s/gt/%s.png" % (data, name))) >= 128,
                                 255, 0).astype(np.uint8))
    m = m.filter(ImageFilter.MinFilter(9)).filter(ImageFilter.MaxFilter(9))   # open
    m = m.filter(ImageFilter.MaxFilter(9)).filter(ImageFilter.MinFilter(9))   # close
    m.filter(ImageFilter.GaussianBlur(3)).save("%s/%s.mask.png" % (out, name))
PY
for j in 1 2; do
  start=$(date +%s.%N)
  "$build/qxmatte" batch "$work/in" -o "$work/out$j" -j $j -q > /dev/null
  end=$(date +%s.%N)
  /usr/bin/python3 -c "s=$end-$start; print('-j $j: 10 photos in %.1f s, %.1f photos a minute' % (s, 600 / s))"
done
again=$("$build/qxmatte" batch "$work/in" -o "$work/out1" -q)
echo "second run: $again"
cmp -s "$work/out1/GT04.png" "$work/out2/GT04.png" && echo "-j 1 and -j 2 give the same files"
