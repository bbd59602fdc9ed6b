"""Python access to the Zelqa data provider; see vorda.zelqa."""

from vorda._version import version as __version__

__all__ = ["__version__"]
