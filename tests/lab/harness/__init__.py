"""What a scenario is written with."""

from . import kernel
from .catalogue import scenario
from .lab import Lab
from .places import Place
from .records import gre_tunnel, ipsec_tunnel, ovpn_tunnel
from .site import Site
from .waiting import Unexpected, eventually, expect, expect_same, expect_text

__all__ = ["Lab", "Place", "Site", "Unexpected", "eventually", "expect", "expect_same",
           "expect_text", "gre_tunnel", "ipsec_tunnel", "kernel", "ovpn_tunnel", "scenario"]
