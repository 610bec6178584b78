"""Publishes what all headsets send to an MQTT broker, until Ctrl-C. Usage: publish_mqtt.py BROKER MQTT_PORT [PORT]

Several machines, each with a dongle, publish to one broker; whoever subscribes sees them all. The broker knows a machine
by its name, so one program on each publishes.

  velmora/MACHINE/start        retained JSON: "time" and "utc", the same moment on the records' clock and since 1970, in ns
  velmora/MACHINE/headsets     retained JSON: the addresses, by the headset numbers in the records
  velmora/MACHINE/records      the records as they lie in memory, many to a message: numpy.frombuffer(payload,
                               velmora.RECORD). In order, none twice and none missing (quality of service 2), also when the
                               network is away for a while; a broker that is started anew has to keep its sessions

Needs paho-mqtt (Debian: python3-paho-mqtt).
"""
import collections
import json
import platform
import signal
import sys
import threading
import time

import paho.mqtt.client as mqtt

import velmora


def connected(name, broker, mqtt_port, clean):
    new = [mqtt.CallbackAPIVersion.VERSION2] if hasattr(mqtt, "CallbackAPIVersion") else []  # paho 2
    client = mqtt.Client(*new, client_id=name, clean_session=clean)
    client.max_queued_messages_set(0)  # a broker that is away for a while costs memory, not data
    client.connect(broker, int(mqtt_port))
    client.loop_start()
    while not client.is_connected():
        time.sleep(0.01)
    return client


def end(client):
    client.disconnect()
    client.loop_stop()


def main(broker, mqtt_port, port=None):
    topic = "velmora/" + platform.node()
    # A session that outlives the connection: with a clean one, a message that was on its way when the broker went would be
    # published again as if it were new. But what a killed run left there would be mixed up with what this one sends.
    end(connected(topic, broker, mqtt_port, clean=True))
    publisher = connected(topic, broker, mqtt_port, clean=False)
    count = collections.Counter()
    publisher.on_publish = lambda *_: count.update(arrived=1)

    def publish(name, payload, retain=False):
        publisher.publish(f"{topic}/{name}", payload, qos=2, retain=retain)
        count["sent"] += 1

    def forward(records):
        if len(records):
            publish("records", records.tobytes())
        return len(records)

    try:
        with velmora.open(port) as dongle:
            headsets = {headset.number: headset.address for headset in dongle.connect()}
            publish("headsets", json.dumps(headsets), retain=True)
            publish("start", json.dumps(dongle.start()._asdict()), retain=True)
            ended = threading.Event()  # by Ctrl-C, which as an exception could fall between reading and publishing
            signal.signal(signal.SIGINT, lambda *_: ended.set())
            while not ended.is_set():
                forward(dongle.records(timeout=0.1, at_least=1024))
            dongle.stop()
            while forward(dongle.records(timeout=0)):
                pass
    finally:
        until = time.monotonic() + 10
        while count["arrived"] < count["sent"] and time.monotonic() < until:
            time.sleep(0.05)
        end(publisher)


if __name__ == "__main__":
    try:
        main(*sys.argv[1:])
    except KeyboardInterrupt:
        pass
    except velmora.Error as error:
        sys.exit(str(error))
