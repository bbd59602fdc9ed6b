"""What goes wrong because of what a user typed."""


class Failure(Exception):
    """Words for the screen."""
