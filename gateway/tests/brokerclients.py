"""Brokers with rules, and foreign clients of theirs."""

import contextlib
import os
import queue
import socket
import ssl
import subprocess
import threading
import time

import paho.mqtt.client as mqtt


def run(*words):
    subprocess.run([str(word) for word in words], check=True, capture_output=True)


@contextlib.contextmanager
def running(ports, *command, environment=None):
    """A program, once it listens."""
    process = subprocess.Popen([str(word) for word in command], env={**os.environ, **(environment or {})})
    try:
        for port in ports:
            wait_for(port, process)
        yield
    finally:
        process.terminate()
        process.wait(10)


def wait_for(port, process):
    deadline = time.monotonic() + 30
    while True:
        with socket.socket() as probe:
            if probe.connect_ex(("127.0.0.1", port)) == 0:
                return
        assert process.poll() is None and time.monotonic() < deadline, f"nobody listens on port {port}"
        time.sleep(0.05)


def hashed(password):
    """As mkpasswd -m bcrypt does it, with less work."""
    return subprocess.run(["perl", "-e", "print crypt($ARGV[0], $ARGV[1])", password, "$2b$04$" + 22 * "a"],
                          check=True, capture_output=True, text=True).stdout


def trust(authority, certificate=None, key=None):
    """What a client needs for TLS: who signed the broker's certificate, and perhaps its own."""
    context = ssl.create_default_context(cafile=authority)
    if certificate:
        context.load_cert_chain(certificate, key)
    return context


class Client:
    """A foreign MQTT client: with TLS or in a WebSocket, with a password, a certificate or both."""

    def __init__(self, port, user, password=None, context=None):
        """Without a `context` for TLS, it is a WebSocket without it."""
        self.received, self.answers = queue.Queue(), queue.Queue()
        self.came, self.gone = threading.Event(), threading.Event()
        self.client = mqtt.Client(client_id=f"of-{user}", transport="tcp" if context else "websockets")
        if password:
            self.client.username_pw_set(user, password)
        if context:
            self.client.tls_set_context(context)
        else:
            self.client.ws_set_options("/mqtt")
        self.client.on_connect = self._connected
        self.client.on_subscribe = lambda client, data, number, granted: self.answers.put(granted[0])
        self.client.on_publish = lambda client, data, number: self.answers.put(number)
        self.client.on_disconnect = self._disconnected
        self.client.on_message = lambda client, data, message: self.received.put((message.topic, message.payload))
        self.client.connect("localhost", port)
        self.client.loop_start()
        self.code = self.answers.get(timeout=10)

    def _connected(self, _client, _data, _flags, code):
        self.answers.put(code)
        self.came.set()

    def _disconnected(self, _client, _data, _code):
        self.came.clear()
        self.gone.set()

    def wait_for_another_connection(self, limit):
        """When the broker ended one, another one is made."""
        assert self.gone.wait(limit) and self.came.wait(limit), "there is no other connection"
        assert self.answers.get() == 0

    def subscribe(self, topic, qos=1):
        """What the broker grants."""
        self.client.subscribe(topic, qos)
        return self.answers.get(timeout=10)

    def publish(self, topic, payload="1", qos=1, retain=False):
        """Returns when the broker has it; that it then passes it on is another matter."""
        self.client.publish(topic, payload, qos, retain)
        self.answers.get(timeout=10)

    def receive(self):
        return self.received.get(timeout=10)

    def stop(self):
        self.client.disconnect()
        self.client.loop_stop()
