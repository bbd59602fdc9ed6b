"""The shell of python -m vorda, on vorda.dbapi."""
