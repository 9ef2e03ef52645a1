"""The exception that carries a library failure."""
from __future__ import annotations


class WebChannelError(Exception):
    """A failed operation: the library's result code and its message.

    Attributes:
        code: the library's result code (negative), as in the README's table.
        message: what failed and why, as the library says it.
    """

    def __init__(self, code: int, message: str) -> None:
        super().__init__(code, message)
        self.code = code
        self.message = message

    def __str__(self) -> str:
        return f"error {self.code}: {self.message}"
