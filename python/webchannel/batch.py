"""What a batch is made of and what it reports: jobs, progress, and the account of a run."""
from __future__ import annotations

from dataclasses import dataclass, field
from typing import List, NamedTuple, Optional


@dataclass(frozen=True)
class Job:
    """A file of the batch, as given to `Channel.add`.

    `size` is the size the library works with (given, or learnt from the
    server when none was given); `up_to_date` is true when the target already
    held the expected digest, so that the library did not add the job.
    """

    url: str
    path: str
    size: Optional[int] = None
    sha256: Optional[str] = None
    up_to_date: bool = False


class Progress(NamedTuple):
    """One progress report of a running batch.

    `finished` files are done and verified; `done` of `total` bytes of the
    others have arrived (both 0 between the library's 256 KiB steps);
    `failed_job` is a job whose worker failed, when there is one.
    """

    finished: int
    done: int
    total: int
    failed_job: Optional[Job]


@dataclass(frozen=True)
class Failure:
    """A job the run did not complete, with the library's code and message."""

    job: Job
    code: int
    message: str


@dataclass(frozen=True)
class BatchResult:
    """The account of `Channel.run`.

    `downloaded`: the files downloaded and verified by this run, in the order
    they were added; `up_to_date`: jobs found complete when they were added;
    `failed`: every other job, with its failure. The library keeps the cause
    of a batch's first failure only: the job it names gets that code and
    message, another job that failed on its own -3000, and one stopped with
    its worker or never reached -3055.
    """

    downloaded: List[Job] = field(default_factory=list)
    up_to_date: List[Job] = field(default_factory=list)
    failed: List[Failure] = field(default_factory=list)

    @property
    def ok(self) -> bool:
        """True when no job failed."""
        return not self.failed
