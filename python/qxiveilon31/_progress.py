"""The ``progress=`` argument: None or False (no reports), a callable(current, total), or True
(a tqdm bar when tqdm can be imported)."""

import warnings


class _Bar:
    """A tqdm bar fed by the library's reports. A workflow runs several jobs, each with its own
    total: the bar starts over when the total changes. A job that overruns its estimate falls
    back to half its total and climbs again: the bar stays where it was until the count passes
    it."""

    def __init__(self, tqdm, desc):
        self._tqdm = tqdm
        self._desc = desc
        self._bar = None

    def __call__(self, current, total):
        if self._bar is None:
            self._bar = self._tqdm(total=total, desc=self._desc, leave=False)
        elif total != self._bar.total:
            self._bar.reset(total=total)
        if current > self._bar.n:
            self._bar.update(current - self._bar.n)

    def close(self):
        if self._bar is not None:
            self._bar.close()
            self._bar = None


def handler(progress, desc):
    """What to install for a call's jobs: None, or a callable(current, total) with a close()
    (call it when the workflow ends)."""
    if progress is None or progress is False:
        return None
    if progress is True:
        try:
            from tqdm import tqdm
        except ImportError:
            warnings.warn("qxiveilon31: progress=True draws its bar with tqdm, which is not "
                          "installed (apt install python3-tqdm); no bar is drawn", stacklevel=3)
            return None
        return _Bar(tqdm, desc)
    if callable(progress):
        return _Callback(progress)
    raise TypeError("progress must be None, True or False, or a callable(current, total), "
                    "got %r" % (progress,))


class _Callback:
    def __init__(self, fn):
        self._fn = fn

    def __call__(self, current, total):
        self._fn(current, total)

    def close(self):
        pass
