"""The settings of the service, from a file of [section] and key = value."""

import configparser
import pathlib
from dataclasses import dataclass, field
from typing import Any, Callable, Optional
from urllib.parse import urlsplit

BROKER_PORTS = {"mqtt": 1883, "mqtts": 8883}


@dataclass
class Access:
    """Where something is, and how to get in."""

    url: str
    user: str = ""
    password: str = ""
    ca: str = ""
    certificate: str = ""
    key: str = ""


@dataclass
class Broker(Access):
    url: str = "mqtt://127.0.0.1"
    version: str = "5"
    client_id: str = ""
    keepalive_s: int = 30
    receive_maximum: int = 1000

    @property
    def nodes(self) -> list[tuple[str, int, bool]]:
        """Host, port and whether by TLS of each."""
        parts = [urlsplit(url.strip()) for url in self.url.split(",")]
        return [(part.hostname or "", part.port or BROKER_PORTS[part.scheme], part.scheme == "mqtts")
                for part in parts]


@dataclass
class Database(Access):
    url: str = "http://127.0.0.1:8428/write"
    rewrite_s: int = 15


@dataclass
class Settings:
    broker: Broker = field(default_factory=Broker)
    prefix: str = "vorbel"
    database: Database = field(default_factory=Database)

    @property
    def client_id(self) -> str:
        return self.broker.client_id or f"{self.prefix}-history"


class Wrong(Exception):
    """What is wrong with a setting, in words that go on behind its name."""


Take = Callable[[str], Any]


def read_settings(path: str, credentials: str) -> tuple[Settings, list[str]]:
    """The settings, and what is wrong with them. `credentials` is the folder of files that are named without a /."""
    settings = Settings()
    parser = configparser.ConfigParser(interpolation=None, delimiters=("=",), comment_prefixes=("#", ";"),
                                       default_section="", empty_lines_in_values=False)
    try:
        parser.read_string(pathlib.Path(path).read_text("utf-8"))
    except OSError as error:
        return settings, [f"{path}: {error.strerror}"]
    except (configparser.Error, UnicodeDecodeError) as error:
        return settings, [f"{path}: not a file of [section] and key = value: {str(error).splitlines()[0]}"]
    found = [_set(settings, credentials, section, key, text.strip())
             for section in parser.sections() for key, text in parser[section].items()]
    errors = [each for each in found if each is not None]
    return settings, errors or _contradictions(settings)


def _set(settings: Settings, credentials: str, section: str, key: str, text: str) -> Optional[str]:
    known = _known(credentials).get((section, key))
    if known is None:
        return f"[{section}] {key}: no such setting"
    if not text:
        return None
    name, take = known
    try:
        owner = settings if section == "topics" else getattr(settings, section)
        setattr(owner, name, take(text))
    except Wrong as wrong:
        return f"[{section}] {key} {wrong}"
    return None


def _known(credentials: str) -> dict[tuple[str, str], tuple[str, Take]]:
    """All settings: what they are called here, and what takes their text."""
    def file(text: str) -> str:
        return _file(text, credentials)

    def password(text: str) -> str:
        return (pathlib.Path(file(text)).read_text("utf-8").splitlines() or [""])[0].strip()

    access: dict[str, tuple[str, Take]] = {
        "user": ("user", str), "password_file": ("password", password), "ca": ("ca", file),
        "certificate": ("certificate", file), "key": ("key", file)}
    broker: dict[str, tuple[str, Take]] = {
        "url": ("url", _brokers), "version": ("version", _version), **access, "client_id": ("client_id", str),
        "keepalive_s": ("keepalive_s", _whole(5, 3600)), "receive_maximum": ("receive_maximum", _whole(1, 65535))}
    database: dict[str, tuple[str, Take]] = {
        "url": ("url", _database), **access, "rewrite_s": ("rewrite_s", _whole(0, 3600))}
    topics: dict[str, tuple[str, Take]] = {"prefix": ("prefix", _prefix)}
    sections = {"broker": broker, "topics": topics, "database": database}
    return {(section, key): known for section, keys in sections.items() for key, known in keys.items()}


def _file(text: str, credentials: str) -> str:
    if "/" not in text and not credentials:
        raise Wrong(f'names the credential "{text}", and there are none: see LoadCredential in systemd.exec(5)')
    path = text if "/" in text else f"{credentials}/{text}"
    try:
        with open(path, "rb"):
            return path
    except OSError as error:
        raise Wrong(f"{path}: {error.strerror}") from None


def _whole(least: int, largest: int) -> Take:
    def take(text: str) -> int:
        if not text.isdecimal() or not least <= int(text) <= largest:
            raise Wrong(f'must be a whole number from {least} to {largest}, and is "{text}"')
        return int(text)

    return take


def _version(text: str) -> str:
    if text not in ("5", "3.1.1"):
        raise Wrong(f'must be 3.1.1 or 5, and is "{text}"')
    return text


def _prefix(text: str) -> str:
    if "" in text.split("/") or "+" in text or "#" in text:
        raise Wrong(f'must be names with / between them, without + and #, and is "{text}"')
    return text


def _brokers(text: str) -> str:
    for url in text.split(","):
        if not _is_url(url.strip(), tuple(BROKER_PORTS), has_path=False):
            raise Wrong(f'must be mqtt://host or mqtts://host, and has "{url.strip()}"')
    return text


def _database(text: str) -> str:
    if not _is_url(text, ("http", "https"), has_path=True):
        raise Wrong(f'must be http://host/path or https://host/path, and is "{text}"')
    return text


def _is_url(text: str, schemes: tuple[str, ...], has_path: bool) -> bool:
    try:
        url = urlsplit(text)
        is_there = bool(url.hostname) and url.port != 0
    except ValueError:
        return False
    is_plain = not url.username and not url.fragment and (has_path or not (url.path or url.query))
    return url.scheme in schemes and is_there and is_plain and text.isprintable() and " " not in text


def _contradictions(settings: Settings) -> list[str]:
    return [f"[{name}] certificate and key: one is not of use without the other"
            for name, access in (("broker", settings.broker), ("database", settings.database))
            if bool(access.certificate) != bool(access.key)]
