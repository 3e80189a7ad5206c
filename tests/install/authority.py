# SPDX-License-Identifier: Apache-2.0
"""Authorities that issue certificates and revocation lists, by the openssl command, and a clock to move."""

import subprocess

EC_KEY = "-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes"
DELTA = "2.5.29.27=critical,DER:020101"
# In place of the C library's: the time on the board, as seconds since 1970 or relative to the present.
CLOCK = r"""
#include <stdlib.h>
#include <time.h>
time_t time(time_t *out) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    const char *set = getenv("TEST_CLOCK");
    time_t result = !set ? now.tv_sec : *set == '+' ? now.tv_sec + atol(set) : atol(set);
    return out ? *out = result : result;
}"""


def make_clock(path):
    subprocess.run(["cc", "-shared", "-fPIC", "-xc", "-", "-o", path], input=CLOCK, text=True, check=True)


class Authorities:
    """Everything named NAME lies in one directory: NAME.key, NAME.pem, and lists as files of their own."""

    def __init__(self, place):
        self.place = place

    def openssl(self, line):
        subprocess.run(["openssl", *line.split()], check=True, capture_output=True, cwd=self.place)

    def root(self, name, subject=None):
        self.openssl(f"req -x509 {EC_KEY} -keyout {name}.key -out {name}.pem -subj /CN={subject or name} -days 3000")

    def issue(self, name, issuer, days=365, further=""):
        """`further` are lines of extensions."""
        (self.place / "extensions").write_text(f"[x]\n{further}\n")
        self.openssl(f"req {EC_KEY} -keyout {name}.key -out request -subj /CN={name}")
        self.openssl(f"x509 -req -in request -CA {issuer}.pem -CAkey {issuer}.key -CAcreateserial -days {days}"
                     f" -extfile extensions -extensions x -out {name}.pem")

    def revoke(self, out, issuer, *names, dates="-crldays 30", extension=""):
        """Writes a list of `issuer` with the certificates `names` on it."""
        (self.place / "index").write_text("".join(
            f"R\t490101000000Z\t240101000000Z\t{self.serial(name)}\tunknown\t/CN={name}\n" for name in names))
        (self.place / "ca.cnf").write_text(
            f"[ca]\ndefault_ca=x\n[x]\ndatabase={self.place}/index\ndefault_md=sha256\n[extensions]\n{extension}\n")
        self.openssl(f"ca -gencrl -config ca.cnf -keyfile {issuer}.key -cert {issuer}.pem {dates} -out {out}"
                     + " -crlexts extensions" * bool(extension))

    def serial(self, name):
        line = subprocess.run(["openssl", "x509", "-noout", "-serial", "-in", self.place / f"{name}.pem"],
                              check=True, capture_output=True, text=True).stdout
        return line.strip().partition("=")[2]

    def gather(self, out, *files):
        (self.place / out).write_bytes(b"".join((self.place / file).read_bytes() for file in files))
