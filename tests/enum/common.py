"""What the tests of ENUM with real programs share: a naive model of the data, the daemon, and dig."""
import pathlib
import re
import subprocess
import time

PATIENCE_SECONDS = 60


class Model:
    """What each name is to be answered with. Records are (stored form, instant, network), instants as in the data."""

    def __init__(self, records, routing):
        self.routing = routing
        self.kept = {}
        for number, since, network in records:
            self.kept.setdefault(number, {}).setdefault(since, network)
        self.beginnings = {key[:length] for key in self.kept for length in range(len(key))}

    def lookup(self, stored, at):
        for length in range(len(stored), 0, -1):
            held = [since for since in self.kept.get(stored[:length], ()) if since <= at]
            if held:
                return self.kept[stored[:length]][max(held)]
        return None

    def uri(self, digits, at):
        network = self.lookup("00" + digits, at)
        if network is None:
            return None
        ported = network != self.lookup("00" + digits[:-1], at)
        routing = f"rn={self.routing[network]}" if ported else f"network={network}"
        return f"tel:+{digits};npdi;{routing}"

    def answer(self, digits, at):
        """(status, URI or None)"""
        if not re.fullmatch("[0-9]{0,15}", digits) or digits.startswith("0"):
            return "NXDOMAIN", None
        if len(digits) < 7:
            return "NOERROR", None
        uri = self.uri(digits, at)
        stored = "00" + digits
        later = any(since > at for length in range(1, len(stored) + 1) for since in self.kept.get(stored[:length], ()))
        return ("NOERROR" if uri or later or stored in self.beginnings else "NXDOMAIN"), uri


def write_site(folder, records, routing, enum="", more=""):
    write_records(folder, records)
    (folder / "networks.toml").write_text(
        "".join(f'[{network}]\nroutingNumber = "{number}"\n' for network, number in routing.items()))
    (folder / "nphost.toml").write_text(f"""[DAT_NumberPortability]
FileName = "portability.dat"
CountryCode = "44"
NationalAccessCode = "0"
[host]
socket = "nphost.socket"
networks = "networks.toml"
dataZone = "UTC"
{more}[enum]
listen = ["127.0.0.1:5300"]
{enum}[[enum.apex]]
name = "e164.example."
ported = "tel:{{number}};npdi;rn={{rn}}"
notPorted = "tel:{{number}};npdi;network={{network}}"
""")


def write_records(folder, records):
    new = folder / "portability.new"
    new.write_text("".join(" ".join(record) + "\n" for record in records))
    new.rename(folder / "portability.dat")


class Running:
    """A program that runs until the block ends."""

    def __init__(self, folder, arguments, ready):
        self.log = folder / (pathlib.Path(arguments[0]).name + ".log")
        with open(self.log, "w") as log:
            self.process = subprocess.Popen(arguments, cwd=folder, stdout=log, stderr=log)
        deadline = time.monotonic() + PATIENCE_SECONDS
        while ready not in self.log.read_text():
            if self.process.poll() is not None or time.monotonic() > deadline:
                self.stop()
                raise SystemExit(f"{arguments[0]} does not run: {self.log.read_text()}")
            time.sleep(0.05)

    def stop(self):
        self.process.terminate()
        try:
            return self.process.wait(PATIENCE_SECONDS)
        except subprocess.TimeoutExpired:
            self.process.kill()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.stop()


def daemon(nphost, folder):
    return Running(folder, [str(nphost), "run", "--config", "nphost.toml"], "INF_HOST_READY")


def name_of(digits):
    return "".join(each + "." for each in reversed(digits)) + "e164.example."


def read_answers(text, begin):
    """(status, URI or None, TTL or None) of each answer, which begin with a line of this form."""
    answers = []
    for part in re.split(begin, text, flags=re.M)[1:]:
        status = re.search(r"(?:status: |NAPTR: )([A-Z]+)", part).group(1)
        found = re.findall(r'^\S+\s+(\d+)\s+IN\s+NAPTR\s+100 10 "u" "E2U\+pstn:tel" "!\^\.\*\$!(.*)!" \.$', part, re.M)
        if len(found) > 1 or bool(re.search(r"\sIN\s+NAPTR\s", part)) != bool(found):
            raise SystemExit(f"no such answer is expected: {part}")
        answers.append((status, found[0][1] if found else None, int(found[0][0]) if found else None))
    return answers


def dig(folder, server, port, all_digits):
    """What dig makes of the answers, in order."""
    names = folder / "names"
    names.write_text("".join(name_of(digits) + " NAPTR\n" for digits in all_digits))
    printed = subprocess.run(
        ["dig", f"@{server}", "-p", str(port), "+tries=2", "+time=5", "+noall", "+comments", "+answer", "-f", names],
        timeout=2 * PATIENCE_SECONDS, capture_output=True, text=True).stdout
    answers = read_answers(printed, "^;; Got answer:")
    if len(answers) != len(all_digits):
        raise SystemExit(f"{len(answers)} of {len(all_digits)} questions are answered: {printed[-1000:]}")
    return answers
