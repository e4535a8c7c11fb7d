"""What is on a gateway besides the manager: its hooks, services and their settings.

A gateway sees the host's files. It has folders of its own in place of /run (and so
/var/run), /dev/shm, /etc and /tmp; what it writes is nowhere else.
"""

from __future__ import annotations

import shutil
from pathlib import Path

from . import namespaces
from .places import put

HOOKS = "/etc/quorvex/hooks"
GRE_HOOK_LOG = "/run/gre_hook.log"
IPSEC_HOOK_LOG = "/run/ipsec_hook.log"
FIREWALL_LOG = "/run/firewall.log"
CHARON_LOG = "/run/charon.log"
COMMANDS = "/run/bin"
PID_FILE = "/run/tunnel_mngr.pid"
SEMAPHORE = "/dev/shm/sem.TUNNEL_MANAGER"

GRE_HOOK = f"""#!/bin/sh
echo "$*" >>{GRE_HOOK_LOG}
"""

IPSEC_HOOK = f"""#!/bin/sh
echo "$PLUTO_VERB $PLUTO_CONNECTION $*" >>{IPSEC_HOOK_LOG}
"""

FIREWALL = f"""#!/bin/sh
# In place of the gateway's own command, which is not at hand.
echo "$*" >>{FIREWALL_LOG}
"""

# When both ends begin at the very same moment, one of them can be left with a security
# association that the other has dropped, and with Debian's times it takes minutes to notice.
CHARON_SETTINGS = f"""charon {{
  retransmit_timeout = 2
  retransmit_base = 2
  retransmit_tries = 2
  plugins {{
    kernel-netlink {{
      xfrm_acq_expires = 5
    }}
  }}
  filelog {{
    lab {{
      path = {CHARON_LOG}
      time_format = %T
      default = 1
      flush_line = yes
    }}
  }}
}}
"""


def furnish(folder: str, name_server: str) -> None:
    """Gives the calling thread the files of a gateway, kept below `folder`."""
    namespaces.leave_mounts()
    namespaces.overlay("/etc", f"{folder}/etc")
    namespaces.overlay("/tmp", f"{folder}/tmp")
    namespaces.mount("tmpfs", "/dev/shm", "tmpfs")
    for part in ("ipsec/cacerts", "ipsec/certs", "ipsec/private", "lock", "api", "bin"):
        Path(folder, "run", part).mkdir(parents=True)
    namespaces.mount(f"{folder}/run", "/run", flags=namespaces.MS_BIND)
    _settings(name_server)
    _commands()
    _ipsec()


def _settings(name_server: str) -> None:
    put("/etc/hosts", "127.0.0.1 localhost\n")
    put("/etc/nsswitch.conf", "passwd: files\ngroup: files\nhosts: files dns\n")
    put("/etc/resolv.conf", f"nameserver {name_server}\noptions timeout:1 attempts:1\n")


def _commands() -> None:
    put(f"{HOOKS}/gre-tunnel-link-changed", GRE_HOOK, 0o755)
    put(f"{HOOKS}/ipsec-tunnel-link-changed", IPSEC_HOOK, 0o755)
    put(f"{COMMANDS}/firewall", FIREWALL, 0o755)


def _ipsec() -> None:
    """Lets strongSwan read the files that the manager writes."""
    _link("/etc/ipsec.conf", "/var/run/ipsec/ipsec.conf")
    _link("/etc/ipsec.secrets", "/var/run/ipsec/ipsec.secrets")
    _link("/etc/ipsec.d/cacerts", "/var/run/ipsec/cacerts")
    put("/etc/strongswan.d/lab.conf", CHARON_SETTINGS)


def _link(path: str, target: str) -> None:
    link = Path(path)
    link.parent.mkdir(parents=True, exist_ok=True)
    if link.is_dir() and not link.is_symlink():
        shutil.rmtree(link)
    link.unlink(missing_ok=True)
    link.symlink_to(target)
