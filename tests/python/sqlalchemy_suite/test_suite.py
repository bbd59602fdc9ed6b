from sqlalchemy.testing.suite import *  # noqa: F401,F403
