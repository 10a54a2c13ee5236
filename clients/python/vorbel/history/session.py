"""The session with the broker. It lasts: what comes while nobody is here, or was not acknowledged, comes later."""

import collections
import select
import socket
import struct
import time
from typing import Any, Callable, Optional

import paho.mqtt.client as mqtt
from paho.mqtt import MQTTException
from paho.mqtt.packettypes import PacketTypes
from paho.mqtt.properties import Properties

from . import log
from .batches import BATCH_LIMIT
from .inbox import HELD_LIMIT, Inbox, Message
from .settings import Broker

TICK = 0.5  # seconds after which the session looks around at the latest
PATIENCE = 10.0  # seconds for the broker to answer
PAUSE_LEAST, PAUSE_MOST = 0.5, 10.0  # seconds between attempts to connect
ROOM_FOR_A_TOPIC = 65536
FOREVER = 0xFFFFFFFF  # seconds of a session's life, in MQTT 5
REFUSED = 0x80  # and above: the answer to a subscription that is none
MISTAKES = (MQTTException, struct.error, IndexError, TypeError, ValueError)  # what the library makes of what is no MQTT


class Client(mqtt.Client):  # type: ignore[misc]
    """The library acknowledges a message when its callback returns. This one leaves that to acknowledge()."""

    def _send_puback(self, mid: int) -> int:
        return int(mqtt.MQTT_ERR_SUCCESS)

    def acknowledge(self, mid: int) -> None:
        super()._send_puback(mid)


def unfitness_of_library() -> Optional[str]:
    """Why acknowledgements cannot be held back with the library that is installed."""
    handler = getattr(mqtt.Client, "_handle_publish", None)
    is_asked = "_send_puback" in getattr(getattr(handler, "__code__", None), "co_names", ())
    if is_asked and hasattr(mqtt.Client, "_send_puback"):
        return None
    return "python3-paho-mqtt is of a version that does not let this program acknowledge for itself; 1.6 does"


class Session:
    """Runs in one thread, in which it alone uses the client; acknowledge() and stop() are for any."""

    def __init__(self, broker: Broker, client_id: str, wanted: str, subscribed: Optional[str], inbox: Inbox) -> None:
        """`wanted` is the filter, and `subscribed` that of which the broker's session is known to have it."""
        self._broker, self._client_id = broker, client_id
        self._wanted, self.subscribed = wanted, subscribed
        self._inbox = inbox
        self._nodes = collections.deque(broker.nodes)
        self._client: Optional[Client] = None
        self._connection = 0
        self._is_connected = self._is_refused = False
        self._sheds = False  # no room: what comes is left to come again
        self._waiting: set[int] = set()  # for their acknowledgements
        self._due: collections.deque[Message] = collections.deque()
        self._wake, self._waker = socket.socketpair()
        self._wake.setblocking(False)
        self._waker.setblocking(False)
        self._is_stopping = False
        self._trouble = log.Trouble()

    def acknowledge(self, messages: list[Message]) -> None:
        self._due.extend(messages)
        self._nudge()

    def stop(self) -> None:
        self._is_stopping = True
        self._nudge()

    def _nudge(self) -> None:
        try:
            self._waker.send(b"\0")
        except BlockingIOError:
            pass  # it is awake

    def run(self, each_tick: Callable[[], None]) -> None:
        """Until stopped."""
        pause = PAUSE_LEAST
        while not self._is_stopping:
            each_tick()
            if self._connect():
                self._serve(each_tick)
                pause = PAUSE_LEAST if self._is_connected else pause
            self._disconnect()
            self._sleep(pause, each_tick)
            pause = min(2 * pause, PAUSE_MOST)

    # The connection

    def _connect(self) -> bool:
        host, port, is_secure = self._nodes[0]
        self._nodes.rotate(-1)
        self._url = f"{'mqtts' if is_secure else 'mqtt'}://{host}:{port}"
        client = self._make_client(is_secure)
        try:
            client.connect(host, port, self._broker.keepalive_s, **self._options())
        except (OSError, ValueError) as error:
            self._tell(getattr(error, "strerror", None) or str(error))
            return False
        self._client = client
        return True

    def _make_client(self, is_secure: bool) -> Client:
        options: dict[str, Any] = {} if self._is_version_5 else {"clean_session": False}
        client = Client(client_id=self._client_id, protocol=mqtt.MQTTv5 if self._is_version_5 else mqtt.MQTTv311,
                        reconnect_on_failure=False, **options)
        if self._broker.user:
            client.username_pw_set(self._broker.user, self._broker.password or None)
        if is_secure:
            client.tls_set(self._broker.ca or None, self._broker.certificate or None, self._broker.key or None)
        client.on_connect = self._on_connect
        client.on_subscribe = self._on_subscribe
        client.on_message = self._on_message
        return client

    @property
    def _is_version_5(self) -> bool:
        return self._broker.version == "5"

    def _options(self) -> dict[str, Any]:
        if not self._is_version_5:
            return {}
        properties = Properties(PacketTypes.CONNECT)
        properties.SessionExpiryInterval = FOREVER
        properties.ReceiveMaximum = self._broker.receive_maximum
        properties.MaximumPacketSize = BATCH_LIMIT + ROOM_FOR_A_TOPIC
        return {"clean_start": False, "properties": properties}

    def _serve(self, each_tick: Callable[[], None]) -> None:
        """Until the connection ends."""
        client = self._client
        assert client is not None
        began = time.monotonic()
        looked = 0.0
        while not self._is_stopping and client.socket() is not None:
            now = time.monotonic()
            if now - looked >= TICK:
                looked = now
                each_tick()
                client.loop_misc()
                if not self._is_connected and now - began > PATIENCE:
                    return self._tell("no answer")
                if self._sheds and self._inbox.bytes < HELD_LIMIT // 2:
                    return None  # to hear again what was left
            try:
                if client.socket() is None or not self._turn(client):
                    break
            except MISTAKES as mistake:
                return self._tell(f"what it says is no MQTT ({mistake})")
        if not self._is_stopping and not self._is_refused:
            self._tell("the connection was lost")

    def _turn(self, client: Client) -> bool:
        """Waits for something to do, and does it. False when the connection has ended."""
        connection = client.socket()
        is_pending = bool(getattr(connection, "pending", int)())  # of TLS
        writing = [connection] if client.want_write() else []
        readable, writable, _ = select.select([connection, self._wake], writing, [], 0 if is_pending else TICK)
        if (connection in readable or is_pending) and client.loop_read() != mqtt.MQTT_ERR_SUCCESS:
            return False
        if writable:
            client.loop_write()
        if self._wake in readable:
            self._wake.recv(65536)
            self._send_due(client)
        return True

    def _send_due(self, client: Client) -> None:
        while self._due:
            message = self._due.popleft()
            if message.connection == self._connection and message.mid in self._waiting:
                self._waiting.discard(message.mid)
                client.acknowledge(message.mid)

    def _disconnect(self) -> None:
        if self._client is not None:
            self._client.disconnect()
            self._client.loop_write()
        self._client = None
        self._is_connected = self._is_refused = self._sheds = False
        self._waiting.clear()
        self._connection += 1
        self._inbox.clear()

    def _sleep(self, seconds: float, each_tick: Callable[[], None]) -> None:
        end = time.monotonic() + seconds
        while not self._is_stopping and (left := end - time.monotonic()) > 0:
            each_tick()
            if select.select([self._wake], [], [], min(left, TICK))[0]:
                self._wake.recv(65536)

    def _tell(self, reason: str) -> None:
        self._trouble.tell(f"broker: {self._url}: {reason}; trying again")

    # What the broker says

    def _on_connect(self, client: Client, _: Any, flags: dict[str, int], result: Any, *__: Any) -> None:
        if result != 0:
            self._is_refused = True
            why = str(result) if self._is_version_5 else mqtt.connack_string(result)
            return self._tell(f"{why}{_advice(result, self._is_version_5)}")
        self._is_connected = True
        self._trouble.over()
        log.info(f"broker: connected to {self._url} as {self._client_id}")
        is_resumed = bool(flags["session present"])
        if self.subscribed is not None and not is_resumed:
            log.warning("broker: it has forgotten the session: what came while this service was away is missing")
        if not is_resumed or self.subscribed != self._wanted:
            # Not otherwise: it would send what is retained ahead of what waits, and a schema ahead of values that it
            # does not explain.
            if is_resumed and self.subscribed is not None:
                client.unsubscribe(self.subscribed)
            client.subscribe(self._wanted, 1)

    def _on_subscribe(self, _: Any, __: Any, ___: int, granted: Any, *____: Any) -> None:
        if any((each if isinstance(each, int) else each.value) >= REFUSED for each in granted):
            log.critical(f"broker: it refuses the subscription to {self._wanted}: look at its rules")
        else:
            self.subscribed = self._wanted

    def _on_message(self, _: Any, __: Any, message: Any) -> None:
        if message.mid in self._waiting:
            return  # the broker grows impatient
        try:
            topic = message.topic
        except UnicodeDecodeError:
            topic = ""
        if self._sheds:
            return
        taken = Message(self._connection, message.mid, topic, message.payload)
        if not self._inbox.put(taken):
            self._sheds = True
        elif message.mid:
            self._waiting.add(message.mid)


def _advice(result: Any, is_version_5: bool) -> str:
    unsupported = 132
    return ": [broker] version = 3.1.1 may help" if is_version_5 and result == unsupported else ""
