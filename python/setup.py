"""Only for the wheel that bundles libqelmaps (scripts/build-wheel.sh): such
a wheel carries a shared library, so it is tagged for this platform, and for
any Python 3 since the package itself is pure Python over ctypes. Everything
else is in pyproject.toml."""

import os

from setuptools import setup
from setuptools.dist import Distribution

bundled = os.path.isdir(os.path.join(os.path.dirname(os.path.abspath(__file__)), "qelmaps", "_lib"))
options = {}
if bundled:
    from wheel.bdist_wheel import bdist_wheel

    class BinaryDistribution(Distribution):
        def has_ext_modules(self):
            return True

    class PlatformWheel(bdist_wheel):
        def get_tag(self):
            return ("py3", "none", super().get_tag()[2])

    options = {"distclass": BinaryDistribution, "cmdclass": {"bdist_wheel": PlatformWheel}}

setup(**options)
