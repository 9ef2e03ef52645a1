"""HTTP/1.1 and HTTPS downloads of verified batches through libwebchannel.

A thin layer of ctypes over the library's C interface (webchannel.h): every
transfer, check and plan is the library's. The shared library is found by
the dynamic loader's usual search, or at the path in the environment
variable WEBCHANNEL_LIBRARY.

    import webchannel

    with webchannel.Channel(workers=8) as channel:
        channel.add("https://example.org/big.iso", "big.iso", sha256="9f86d0...")
        result = channel.run(progress=lambda p: print(p.done, "of", p.total))
    for failure in result.failed:
        print(failure.job.url, failure.code, failure.message)
"""
from ._library import LIBRARY_VARIABLE
from .batch import BatchResult, Failure, Job, Progress
from .channel import Channel, result_text
from .errors import WebChannelError

__all__ = [
    "LIBRARY_VARIABLE",
    "BatchResult",
    "Channel",
    "Failure",
    "Job",
    "Progress",
    "WebChannelError",
    "result_text",
]
__version__ = "1.0.0"
