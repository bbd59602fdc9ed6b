"""SQLAlchemy dialects on vorda.dbapi: sqlite+vorda, postgresql+vorda, mysql+vorda, mariadb+vorda.

SQLAlchemy finds them by the entry points of the package; nothing else imports this.
"""
