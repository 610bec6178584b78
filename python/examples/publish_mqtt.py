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
import json
import platform
import signal
import sys
import threading

import paho.mqtt.client as mqtt

import velmora


def client(name):
    # A session that outlives the connection: with a clean one, a message that was on its way when the broker went would be
    # published again as if it were new.
    if hasattr(mqtt, "CallbackAPIVersion"):  # paho 2
        return mqtt.Client(mqtt.CallbackAPIVersion.VERSION2, client_id=name, clean_session=False)
    return mqtt.Client(client_id=name, clean_session=False)


def main(broker, mqtt_port, port=None):
    topic = "velmora/" + platform.node()
    publisher = client(topic)
    publisher.max_queued_messages_set(0)  # a broker that is away for a while costs memory, not data
    publisher.connect(broker, int(mqtt_port))
    publisher.loop_start()
    sent = None

    def publish(records):
        nonlocal sent
        if len(records):
            sent = publisher.publish(topic + "/records", records.tobytes(), qos=2)
        return len(records)

    try:
        with velmora.open(port) as dongle:
            headsets = {headset.number: headset.address for headset in dongle.connect()}
            publisher.publish(topic + "/headsets", json.dumps(headsets), qos=2, retain=True)
            publisher.publish(topic + "/start", json.dumps(dongle.start()._asdict()), qos=2, retain=True)
            ended = threading.Event()  # by Ctrl-C, which as an exception could fall between reading and publishing
            signal.signal(signal.SIGINT, lambda *_: ended.set())
            while not ended.is_set():
                publish(dongle.records(timeout=0.1, at_least=1024))
            dongle.stop()
            while publish(dongle.records(timeout=0)):
                pass
    finally:
        if sent is not None:
            sent.wait_for_publish(10)
        publisher.disconnect()
        publisher.loop_stop()


if __name__ == "__main__":
    try:
        main(*sys.argv[1:])
    except velmora.Error as error:
        sys.exit(str(error))
