"""Run by the install tests with an installed copy of the package on the path:
    python installed_check.py PACKAGE_ROOT [LIBRARY_ROOT]
checks that the package imported is the one under PACKAGE_ROOT (and the library loaded the one
under LIBRARY_ROOT), and that a job runs and gets the scene's alpha."""

import os
import sys

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from scenes import hard_cut_error, mean_error, soft_disc  # noqa: E402

import qxiveilon31 as qx  # noqa: E402


def under(path, root):
    path, root = os.path.realpath(path), os.path.realpath(root)
    return os.path.commonpath([path, root]) == root


package_root = sys.argv[1]
assert under(qx.__file__, package_root), "imported %s, not the copy under %s" % (
    qx.__file__, package_root)
if len(sys.argv) > 2:
    assert under(qx.library_path(), sys.argv[2]), "loaded %s, not the library under %s" % (
        qx.library_path(), sys.argv[2])
scene = soft_disc()
alpha = qx.matte_trimap(scene.image, scene.trimap)
assert mean_error(alpha, scene.alpha, scene.band) < 0.4 * hard_cut_error(scene)
print("qxiveilon31 %s from %s, library %s at %s: ok"
      % (qx.__version__, qx.__file__, ".".join(map(str, qx.library_version())),
         qx.library_path()))
