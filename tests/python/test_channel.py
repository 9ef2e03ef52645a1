"""The Python package against the test nginx: each test checks the files it leaves on disk."""
from pathlib import Path

import pytest

from conftest import sha256
from webchannel import Failure, WebChannelError


def test_verified_batch_lands_every_file_and_a_second_add_finds_it_up_to_date(channel, peers, tmp_path):
    www = Path(peers["WWW"])
    names = ["five.bin", "k256p1.bin", "m1.bin"]
    url = f"http://127.0.0.1:{peers['HTTP_PORT']}/"
    # Without a size the library asks the server, and the job says what it found.
    jobs = [channel.add(url + name, tmp_path / name, sha256=sha256(www / name)) for name in names]
    assert [job.size for job in jobs] == [(www / name).stat().st_size for name in names]
    reports = []
    result = channel.run(progress=reports.append)
    assert result.ok and result.downloaded == jobs and result.up_to_date == []
    assert [(tmp_path / name).read_bytes() for name in names] == [(www / name).read_bytes() for name in names]
    assert reports and max(report.finished for report in reports) == len(names)

    channel.remove(url + "m1.bin")
    again = channel.add(url + "m1.bin", tmp_path / "m1.bin", sha256=sha256(www / "m1.bin"))
    assert again.up_to_date and channel.run().up_to_date == [again]
    assert (tmp_path / "m1.bin").read_bytes() == (www / "m1.bin").read_bytes()


def test_single_requests_get_download_and_post(channel, peers, tmp_path):
    url = f"http://127.0.0.1:{peers['HTTP_PORT']}/"
    assert channel.get(url + "five.bin") == b"hello"
    channel.download(url + "five.bin", tmp_path / "five.bin")
    assert (tmp_path / "five.bin").read_bytes() == b"hello"
    answer = channel.post(url + "post", "a=1", {"Connection": "close"})
    assert answer.startswith(b"HTTP/1.1 200 ") and answer.endswith(b"\r\n\r\nposted\n")
    with pytest.raises(WebChannelError) as refused:
        channel.download(url + "nope.bin", tmp_path / "nope.bin")
    assert refused.value.code == -3052 and "404" in refused.value.message


def test_digest_mismatch_fails_that_file_alone(channel, peers, tmp_path):
    www = Path(peers["WWW"])
    url = f"http://127.0.0.1:{peers['HTTP_PORT']}/"
    good = channel.add(url + "five.bin", tmp_path / "five.bin", sha256=sha256(www / "five.bin"))
    wrong = sha256(www / "five.bin")  # not k256.bin's
    bad = channel.add(url + "k256.bin", tmp_path / "k256.bin", sha256=wrong)
    result = channel.run()
    assert result.downloaded == [good]
    assert result.failed == [Failure(bad, -3061, f"size or digest mismatch: {bad.path}")]
    assert (tmp_path / "five.bin").read_bytes() == b"hello"
    # The server's bytes stay where they landed; they are just not the file asked for.
    assert (tmp_path / "k256.bin").read_bytes() == (www / "k256.bin").read_bytes()
    assert not channel.is_valid(tmp_path / "k256.bin", wrong) and channel.is_valid(tmp_path / "five.bin", wrong)


def test_a_callback_that_raises_cancels_the_batch_and_its_exception_comes_back(channel, peers, tmp_path):
    www = Path(peers["WWW"])
    url = f"http://127.0.0.1:{peers['HTTP_PORT']}/m10.bin"
    channel.add(url, tmp_path / "m10.bin", sha256=sha256(www / "m10.bin"))
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


def test_servers_that_fail_verification_under_3021_are_refused(channel, peers, tmp_path):
    www = Path(peers["WWW"])
    digest = sha256(www / "five.bin")
    url = "https://127.0.0.1:{}/five.bin".format
    channel.set_param(3021, peers["TRUST_CA"])
    good = channel.add(url(peers["TLS_PORT_good"]), tmp_path / "good.bin", sha256=digest)
    # The size probe meets the expired certificate: the job is refused and its target never made.
    with pytest.raises(WebChannelError) as expired:
        channel.add(url(peers["TLS_PORT_expired"]), tmp_path / "expired.bin", sha256=digest)
    assert expired.value.code == -3034 and "certificate has expired" in expired.value.message
    assert not (tmp_path / "expired.bin").exists()
    # With its size given the job is accepted, and the batch meets the name that does not match.
    other = channel.add(url(peers["TLS_PORT_othername"]), tmp_path / "other.bin", size=5, sha256=digest)
    result = channel.run()
    assert result.downloaded == [good] and (tmp_path / "good.bin").read_bytes() == b"hello"
    assert [(f.job, f.code) for f in result.failed] == [(other, -3034)], result.failed
    assert "mismatch" in result.failed[0].message and (tmp_path / "other.bin").read_bytes() == b""
