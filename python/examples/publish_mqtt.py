"""Publishes what all headsets send to an MQTT broker, until Ctrl-C. Usage: publish_mqtt.py BROKER MQTT_PORT [PORT]

Several machines, each with a dongle, publish to one broker; whoever subscribes sees them all.

  velmora/MACHINE/start        retained JSON: "time" and "utc", the same moment on the records' clock and since 1970, in ns
  velmora/MACHINE/headsets     retained JSON: the addresses, by the headset numbers in the records
  velmora/MACHINE/records      the records as they lie in memory, many to a message: numpy.frombuffer(payload,
                               velmora.RECORD). In order, none twice and none missing (quality of service 2)

Needs paho-mqtt (Debian: python3-paho-mqtt).
"""
import json
import platform
import sys

import paho.mqtt.client as mqtt

import velmora


def client():
    if hasattr(mqtt, "CallbackAPIVersion"):  # paho 2
        return mqtt.Client(mqtt.CallbackAPIVersion.VERSION2)
    return mqtt.Client()


def main(broker, mqtt_port, port=None):
    publisher = client()
    publisher.max_queued_messages_set(0)  # a broker that is away for a while costs memory, not data
    publisher.connect(broker, int(mqtt_port))
    publisher.loop_start()
    topic = "velmora/" + platform.node()
    sent = None
    try:
        with velmora.open(port) as dongle:
            headsets = {headset.number: headset.address for headset in dongle.connect()}
            publisher.publish(topic + "/headsets", json.dumps(headsets), qos=2, retain=True)
            publisher.publish(topic + "/start", json.dumps(dongle.start()._asdict()), qos=2, retain=True)
            try:
                while True:
                    records = dongle.records(timeout=0.1, at_least=1024)
                    if len(records):
                        sent = publisher.publish(topic + "/records", records.tobytes(), qos=2)
            except KeyboardInterrupt:
                dongle.stop()
                sent = publisher.publish(topic + "/records", dongle.records(timeout=0, at_least=0).tobytes(), qos=2)
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
