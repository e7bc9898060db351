# python installed_check.py PACKAGE_ROOT [LIBRARY_ROOT]: the installed package (and library)
# are the ones under those roots, and a job gets the scene's alpha.

import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from scenes import hard_cut_error, mean_error, soft_disc  # noqa: E402

import qxiveilon31 as qx  # noqa: E402

for path, root in zip((qx.__file__, qx.library_path()), sys.argv[1:]):
    root = os.path.realpath(root)
    assert os.path.commonpath([os.path.realpath(path), root]) == root, (path, "not under", root)
scene = soft_disc()
alpha = qx.matte_trimap(scene.image, scene.trimap)
assert mean_error(alpha, scene.alpha, scene.band) < 0.4 * hard_cut_error(scene)
print("qxiveilon31 from %s, library %s at %s: ok" % (qx.__file__, qx.library_version(),
                                                     qx.library_path()))
