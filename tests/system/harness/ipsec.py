"""IPsec as the tests expect it: records, texts and log."""

from __future__ import annotations

from typing import Any

from .expected import DISCOVERY, FINISH_COMMANDS, FIREWALL, IPSEC_STOP, NO_GRE, PULL, REMOVE_FILES
from .gateway import Gateway, Run

BASE = "/var/run/ipsec"
CONF = f"{BASE}/ipsec.conf"
SECRETS = f"{BASE}/ipsec.secrets"
HEADER = "version 2.0\n\nconfig setup\n\tuniqueids=yes\n"

PSK = {"name": "branch", "enabled": True, "remoteWanIp": "192.0.2.9", "type": "IKEv2",
       "encryptMethod": "aes128", "ikelife": 3, "keylife": 1, "psk": "shared key"}
RSA = {"name": "site2", "enabled": True, "remoteWanIp": "192.0.2.10", "type": "IKEv2", "authMethod": "rsasig",
       "phase1": "aes256-sha2_256;dh24", "phase2": "aes256-sha2_256", "ikelife": 8, "keylife": 2,
       "caCert": "the CA\n", "localCert": "the certificate\n", "localPrivKey": "the key\n"}

RESTART_COMMANDS = [FINISH_COMMANDS[0], "ipsec restart", FINISH_COMMANDS[1]]
RESET = [("TRACE", REMOVE_FILES)]
CREATION = [("DEBUG", "Creating IPsec Configuration Files")]
NOTHING = [("DEBUG", "[TUNNEL_MNGR] There are no ipsec tunnels to start.")]
RESTART = [("DEBUG", "[TUNNEL_MNGR] Starting IPsec"), ("TRACE", "ipsec restart")]
RESET_FAILED = [("ERROR", "[TUNNEL_MNGR] Failed to reset ipsec tunnels configuration to default")]
WRONG_TYPE = ("WARNING", "[TUNNEL_MNGR] Error in ipsec config generation. "
                         "IPSec Connection Type not implemented.")
UNKNOWN_METHOD = ("ERROR", "[TUNNEL_MNGR] Unsupported encryption method.")
SHA2 = ("ERROR", "[TUNNEL_MNGR] Unsupported hash value = sha2 (need use sha2_256 or sha2_512, set sha2_256).")


def pulled(record: dict) -> tuple[str, str]:
    """Returns the pull's record of an enabled tunnel whose peer is an address."""
    return ("INFO", f"ipsec tunnel [{record['remoteWanIp']}][{record['remoteWanIp']}] period 1")


def psk_done(name: str) -> tuple[str, str]:
    """Returns the record of a tunnel with a key that was written."""
    return ("DEBUG", f"[TUNNEL_MNGR] IPSEC PSK tunnel [{name}] configured successfully.")


def psk_failed(name: str) -> tuple[str, str]:
    """Returns the record of a tunnel with a key that was not written."""
    return ("ERROR", f"[TUNNEL_MNGR] Failed to configure IPSEC PSK tunnel [{name}].")


def rsa_done(name: str) -> tuple[str, str]:
    """Returns the record of a tunnel with certificates that was written."""
    return ("DEBUG", f"[TUNNEL_MNGR] IPSEC RSASIG tunnel [{name}] configured successfully.")


def rsa_failed(name: str) -> tuple[str, str]:
    """Returns the record of a tunnel with certificates that was not written."""
    return ("ERROR", f"[TUNNEL_MNGR] Failed to configure IPSEC RSA tunnel [{name}].")


def not_opened(path: str) -> tuple[str, str]:
    """Returns the record of a file that cannot be opened."""
    return ("WARNING", f"[{path}] could not be opened.")


def cycle(*records: dict, told: list[tuple[str, str]]) -> list[tuple[str, str]]:
    """Returns the log of a cycle with these tunnels, `told` being the set-up's part."""
    return (DISCOVERY + IPSEC_STOP + PULL + [pulled(record) for record in records] + NO_GRE + RESET + told
            + FIREWALL)


def run_with(gateway: Gateway, *records: dict[str, Any]) -> Run:
    """Runs once, logging all, with these tunnels."""
    gateway.api(ipsecTunnels=list(records))
    return gateway.run("-p", "100")


def settings(*lines: str) -> str:
    """Returns indented lines."""
    return "".join(f"\t{line}\n" for line in lines)


def main_section(name: str, peer: str, *lines: str, left: str = "198.51.100.2",
                 modes: tuple[str, str] = ("no", "no")) -> str:
    """Returns a main section up to its proposals, and then these lines."""
    return f"\nconn {name}\n" + settings(
        f"left={left}", "leftupdown=/etc/quorvex/hooks/ipsec-tunnel-link-changed", f"right={peer}",
        "auto=start", "dpddelay=60", "dpdtimeout=120", "dpdaction=restart", f"compress={modes[0]}",
        f"aggressive={modes[1]}", *lines)


def pair(name: str, indices: str, left: str, right: str) -> str:
    """Returns a sub-connection."""
    return f"\nconn {name}_subnet_{indices}\n" + settings(
        f"also={name}", f"leftsubnet={left}", f"rightsubnet={right}", "auto=route")


def psk_section(name: str = "branch", left: str = "198.51.100.2") -> str:
    """Returns the section of the tunnel PSK."""
    return main_section(
        name, "192.0.2.9",
        "ike=aes128-md5-modp1536,aes128-sha1-modp1536,aes128-md5-modp1024,aes128-sha1-modp1024",
        "esp=aes128-md5,aes128-sha1", "ikelifetime=3h", "keylife=1h", "keyingtries=%forever",
        "keyexchange=ikev2", "authby=secret", left=left)


def rsa_section(name: str = "site2") -> str:
    """Returns the section of the tunnel RSA."""
    return main_section(
        name, "192.0.2.10", "ike=aes256-sha2_256-modp2048s256", "esp=aes256-sha2_256", "ikelifetime=8h",
        "keylife=2h", "keyingtries=%forever", "keyexchange=ikev2", "authby=rsasig",
        f"leftcert={BASE}/certs/{name}.pem", "rightid=%any")


PSK_SECRET = '"198.51.100.2" "192.0.2.9" : PSK "shared key"\n'
RSA_SECRET = f": RSA {BASE}/private/site2.pem\n"


def subnets(*texts: str) -> list[dict]:
    """Returns subnet objects for texts like 10.0.0.0/8."""
    return [{"ip": ip, "mask": int(mask)} for ip, mask in (text.split("/") for text in texts)]


def files_below(gateway: Gateway) -> dict[str, tuple[int, str]]:
    """Returns mode and text of every file of the IPsec service."""
    base = gateway.path(BASE)
    names = [str(path.relative_to(base)) for path in base.rglob("*") if path.is_file()]
    return {name: (gateway.mode(f"{BASE}/{name}"), gateway.file(f"{BASE}/{name}")) for name in names}
