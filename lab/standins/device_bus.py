"""Base of a stand-in service: receives changes of State properties in order, and writes properties.

    serve({"State.X": handler})

handler(value, latest, write): `latest` has the last value of each State property that has changed, and
write(key, value, source) sets a property. Waits for the broker if there is none yet, and prints "ready" after each
subscription.
"""

import json
import os
import signal
import sys

import paho.mqtt.client as mqtt


def serve(handlers):
    """Runs until SIGTERM. An exception of a handler is logged."""
    signal.signal(signal.SIGTERM, lambda *_: os._exit(0))
    sys.stdout.reconfigure(line_buffering=True)
    latest = {}
    client = mqtt.Client(protocol=mqtt.MQTTv5)

    def write(key, value, source):
        # A set without a response topic is executed but not answered.
        client.publish("prop-service/set", json.dumps({"param": key, "value": value, "source": source}), 1)

    def on_message(_client, _data, message):
        change = json.loads(message.payload)
        latest[change["param"]] = change["value"]
        handler = handlers.get(change["param"])
        if handler is None:
            return
        try:
            handler(change["value"], latest, write)
        except Exception as error:  # the service must keep running
            print(f"{change['param']}: {type(error).__name__}: {error}")

    client.on_connect = lambda *_: client.subscribe("prop-service-state/#", 1)
    client.on_subscribe = lambda *_: print("ready")
    client.on_message = on_message
    client.reconnect_delay_set(1, 1)
    client.connect_async("127.0.0.1", 1883)
    client.loop_forever(retry_first_connection=True)


def inside(folder, name):
    """The path of the named file in the folder. Raises ValueError for anything but a plain file name."""
    if not name or "/" in name or name in (".", ".."):
        raise ValueError(f"not a file name: {name!r}")
    return os.path.join(folder, name)
