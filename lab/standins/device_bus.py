"""A service of the phone on its bus: hears changes of State properties in order, writes properties.

    serve({"State.X": handler})      # handler(value, heard); `heard` holds the latest value of every State property

It waits for a broker that comes later, and prints "ready" whenever its subscription holds.
"""

import json
import os
import signal
import sys

import paho.mqtt.client as mqtt


def serve(handlers):
    """Runs until SIGTERM. A handler that fails is a line in the log."""
    signal.signal(signal.SIGTERM, lambda *_: os._exit(0))
    sys.stdout.reconfigure(line_buffering=True)
    heard = {}
    client = mqtt.Client(protocol=mqtt.MQTTv5)

    def write(key, value, source):
        # Without a response topic a set is carried out and not answered.
        client.publish("prop-service/set", json.dumps({"param": key, "value": value, "source": source}), 1)

    def on_message(_client, _data, message):
        change = json.loads(message.payload)
        heard[change["param"]] = change["value"]
        handler = handlers.get(change["param"])
        if handler is None:
            return
        try:
            handler(change["value"], heard, write)
        except Exception as error:  # a service goes on
            print(f"{change['param']}: {type(error).__name__}: {error}")

    client.on_connect = lambda *_: client.subscribe("prop-service-state/#", 1)
    client.on_subscribe = lambda *_: print("ready")
    client.on_message = on_message
    client.reconnect_delay_set(1, 1)
    client.connect_async("127.0.0.1", 1883)
    client.loop_forever(retry_first_connection=True)


def inside(folder, name):
    """The path of the file of that name in the folder; names that are none are refused."""
    if not name or "/" in name or name in (".", ".."):
        raise ValueError(f"no file name: {name!r}")
    return os.path.join(folder, name)
