"""The short form of scripts/soak."""

from soak import Soak

REQUESTS = 20000


def test_many_clients_get_every_reply_and_leave_nothing_behind(bed):
    soak = Soak(bed, REQUESTS, seed=1)
    soak.run()
    soak.check_last_values()
    soak.check_leftovers()
    assert soak.counts["Set"] > REQUESTS / 4 and soak.counts["Get of the client's own item"] > REQUESTS / 6, soak.counts
    assert soak.counts["vanished with calls in flight"] > 0, soak.counts
    bed.bus.stop()
    assert soak.daemon.wait() == 0
    assert soak.daemon.stderr() == ""
