"""The Python package against the test nginx: what only the package adds (jobs and accounts, exceptions, a
cancel by raising) over the C interface that the C and C++ tests prove."""
from pathlib import Path

import pytest

from conftest import sha256
from webchannel import Failure, WebChannelError


def test_a_batch_accounts_for_every_job_and_a_second_add_finds_it_up_to_date(channel, peers, tmp_path):
    www, url = Path(peers["WWW"]), f"http://127.0.0.1:{peers['HTTP_PORT']}/"
    names = ["five.bin", "k256p1.bin", "m1.bin"]
    # Without a size the library asks the server, and the job says what it found.
    jobs = [channel.add(url + name, tmp_path / name, sha256=sha256(www / name)) for name in names]
    assert [job.size for job in jobs] == [(www / name).stat().st_size for name in names]
    bad = channel.add(url + "k256.bin", tmp_path / "k256.bin", sha256=sha256(www / "five.bin"))
    reports = []
    result = channel.run(progress=reports.append)
    assert result.downloaded == jobs and result.up_to_date == []
    assert result.failed == [Failure(bad, -3061, f"size or digest mismatch: {bad.path}")]
    assert [(tmp_path / name).read_bytes() for name in names] == [(www / name).read_bytes() for name in names]
    assert reports and max(report.finished for report in reports) == len(names)
    assert channel.is_valid(tmp_path / "five.bin", bad.sha256)
    assert not channel.is_valid(tmp_path / "k256.bin", bad.sha256)

    channel.remove(url + "m1.bin")
    again = channel.add(url + "m1.bin", tmp_path / "m1.bin", sha256=sha256(www / "m1.bin"))
    assert again.up_to_date and channel.run().up_to_date == [again]


def test_single_requests_and_refusals(channel, peers, tmp_path):
    url = f"http://127.0.0.1:{peers['HTTP_PORT']}/"
    assert channel.get(url + "five.bin") == b"hello"
    channel.download(url + "five.bin", tmp_path / "five.bin")
    assert (tmp_path / "five.bin").read_bytes() == b"hello"
    answer = channel.post(url + "post", "a=1", {"Connection": "close"})
    assert answer.startswith(b"HTTP/1.1 200 ") and answer.endswith(b"\r\n\r\nposted\n")
    channel.set_param(3018, "c=1")
    assert channel.get_param(3018) == "c=1"
    for refused in (lambda: channel.download(url + "nope.bin", tmp_path / "nope.bin"),
                    lambda: channel.add(url + "nope.bin", tmp_path / "nope.bin")):
        with pytest.raises(WebChannelError) as error:
            refused()
        assert error.value.code == -3052 and "404" in error.value.message
    assert channel.jobs == ()  # a refused job is not listed


def test_a_callback_that_raises_cancels_the_batch_and_its_exception_comes_back(channel, peers, tmp_path):
    www = Path(peers["WWW"])
    channel.add(f"http://127.0.0.1:{peers['HTTP_PORT']}/m10.bin", tmp_path / "m10.bin", sha256=sha256(www / "m10.bin"))
    calls = []

    class Stop(Exception):
        pass

    def stop(report):
        calls.append(report)
        raise Stop()

    with pytest.raises(Stop):
        channel.run(progress=stop)
    assert len(calls) == 1  # never called again once it raised
    assert channel.last_error()[0] == -3055
    # Cancelled at the first report, 256 KiB in: far from the whole file.
    assert (tmp_path / "m10.bin").read_bytes() != (www / "m10.bin").read_bytes()
