#!/usr/bin/python3
"""A NETCONF session with `octunnel serve`, in OpenConfig, with Python's
ncclient (Debian's python3-ncclient, for /usr/bin/python3): prints the
capability of the tunnel model the agent advertises, edits tunnel-ip12's
endpoints and ttl, and prints them read back through a subtree filter.

    session.py HOST:PORT USER

The password is taken from OCTUNNEL_PASSWORD, else asked for.  The agent's
host key is not checked: this is a first look at an agent of one's own.
"""

import getpass
import os
import sys
import time

from ncclient import manager
from ncclient.transport.errors import SSHError

NC = "urn:ietf:params:xml:ns:netconf:base:1.0"
OC = "http://openconfig.net/yang/interfaces"
TUN = "http://openconfig.net/yang/interfaces/tunnel"

EDIT = f"""
<config xmlns="{NC}">
  <interfaces xmlns="{OC}">
    <interface>
      <name>tunnel-ip12</name>
      <tunnel xmlns="{TUN}">
        <config>
          <src>192.0.2.1</src>
          <dst>198.51.100.7</dst>
          <ttl>64</ttl>
        </config>
      </tunnel>
    </interface>
  </interfaces>
</config>"""

READ = f"""
<interfaces xmlns="{OC}">
  <interface>
    <name>tunnel-ip12</name>
    <tunnel xmlns="{TUN}"><config/></tunnel>
  </interface>
</interfaces>"""


def connect(host, port, user, password):
    # An agent started a moment ago may still be loading its models: give
    # it ten seconds to listen.
    for attempt in range(50):
        try:
            return manager.connect(host=host, port=port, username=user, password=password,
                                   hostkey_verify=False, allow_agent=False,
                                   look_for_keys=False)
        except SSHError as e:
            if not str(e).startswith("Could not open socket") or attempt == 49:
                raise
            time.sleep(0.2)


def main():
    if len(sys.argv) != 3 or ":" not in sys.argv[1]:
        sys.exit("usage: session.py HOST:PORT USER")
    host, port = sys.argv[1].rsplit(":", 1)
    user = sys.argv[2]
    password = os.environ.get("OCTUNNEL_PASSWORD") or getpass.getpass(f"{user}'s password: ")
    with connect(host.strip("[]"), int(port), user, password) as m:
        print([c for c in m.server_capabilities if "if-tunnel" in c])
        m.edit_config(target="running", config=EDIT)
        print(m.get_config("running", filter=("subtree", READ)).data_xml)


if __name__ == "__main__":
    main()
