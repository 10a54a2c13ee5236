"""What can go wrong, in words for the person who has to put it right."""


class VorbelError(Exception):
    """Any error of this package."""


class ConnectError(VorbelError):
    """No daemon answered in time, or the connection is gone."""


class SchemaError(VorbelError):
    """A schema that was not sent. `problems` lists all that is wrong with it; empty if it could not be read."""

    def __init__(self, message, problems=()):
        super().__init__(message)
        self.problems = list(problems)


class WriteError(VorbelError):
    """A value that was not sent, because the daemon would have ignored it or written something else."""
