"""Certificates for the scenarios, made by openssl."""

from __future__ import annotations

from dataclasses import dataclass

from .places import Place

REQUEST = """\
[req]
distinguished_name = name
x509_extensions = extensions
prompt = no
[name]
O = Lab
CN = {name}
[extensions]
{extensions}
"""


@dataclass(frozen=True)
class Certificate:
    """A certificate and its private key, both PEM texts."""

    text: str
    key: str


class Authority:
    """Signs certificates; its files are below a folder of the place that runs openssl."""

    def __init__(self, place: Place, folder: str) -> None:
        self._place = place
        self._folder = folder
        self.own = self._make("authority", "basicConstraints = critical, CA:TRUE")

    def certify(self, name: str, extensions: str = "") -> Certificate:
        """Returns a certificate for a DNS name, with further lines of extensions."""
        return self._make(name, f"subjectAltName = DNS:{name}\n{extensions}",
                          "-CA", f"{self._folder}/authority.pem",
                          "-CAkey", f"{self._folder}/authority.key")

    def _make(self, name: str, extensions: str, *signed_by: str) -> Certificate:
        files = f"{self._folder}/{name}"
        self._place.write(f"{files}.conf", REQUEST.format(name=name, extensions=extensions))
        self._place.must("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "30",
                         "-config", f"{files}.conf", "-keyout", f"{files}.key",
                         "-out", f"{files}.pem", *signed_by)
        return Certificate(self._place.read(f"{files}.pem"), self._place.read(f"{files}.key"))
