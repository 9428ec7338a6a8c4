"""The short form of scripts/soak."""

from soak import Soak

REQUESTS = 20000
# A leak of 33 bytes in each request would show; what the C library keeps for later comes and goes in this order.
ALLOWED_GROWTH = 384 * 1024


def test_many_clients_get_every_reply_and_leave_nothing_behind(bed):
    soak = Soak(bed, REQUESTS, seed=1)
    soak.run()
    soak.last_values()
    assert soak.new_descriptors == 0
    assert is_sanitized(soak.daemon) or soak.growth() < ALLOWED_GROWTH, soak.samples
    assert soak.counts["Set"] > REQUESTS / 4 and soak.counts["Get of the client's own item"] > REQUESTS / 6, soak.counts
    assert soak.counts["vanished with calls in flight"] > 0, soak.counts
    bed.bus.stop()
    assert soak.daemon.wait() == 0
    assert soak.daemon.stderr() == ""


def is_sanitized(daemon):
    """Returns whether the address sanitizer is in the process. It keeps freed memory on purpose, so that growth says
    nothing; it tells of leaks itself at the end."""
    with open(f"/proc/{daemon.process.pid}/maps", encoding="utf-8") as file:
        return "libasan" in file.read()
