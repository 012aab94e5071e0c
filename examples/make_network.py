#!/usr/bin/env python3
"""Writes network.json and network-update.json, the bundled example network.

The network is a small service-provider core seen from one provider-edge router, pe1: its
routers, its links, and the tunnel tables its protocol agents would fill. The update is the same
network a moment later: an LDP path re-routed, a static tunnel withdrawn, a BGP-LU route lost,
a new SR tunnel, a new EVPN VXLAN tunnel and a new branch on an mLDP tree. Run it again after editing; the JSON files are what
the demo and the tests read.
"""
import copy
import json
import os

HERE = os.path.dirname(os.path.abspath(__file__))

names = (["p%d" % i for i in range(1, 7)] + ["pe%d" % i for i in range(1, 13)] +
         ["rr1", "rr2", "asbr1", "asbr2", "dci1", "dci2"])
num = {n: i + 1 for i, n in enumerate(names)}


def lo(n):
    return "10.255.0.%d" % num[n]


def lo6(n):
    return "2001:db8:ffff::%d" % num[n]


# Links: (a, intf on a, b, intf on b, subnet index); a /31 per link, a gets .0, b gets .1.
links = [
    ("pe1", "Ethernet1", "p1", "Ethernet1"),
    ("pe1", "Ethernet2", "p2", "Ethernet1"),
    ("pe1", "Ethernet3/1", "asbr1", "Ethernet1"),
    ("pe1", "Port-Channel10", "p3", "Port-Channel10"),
    ("p1", "Ethernet2", "p2", "Ethernet2"),
    ("p1", "Ethernet3", "p3", "Ethernet3"),
    ("p2", "Ethernet3", "p4", "Ethernet3"),
    ("p3", "Ethernet4", "p5", "Ethernet4"),
    ("p4", "Ethernet4", "p6", "Ethernet4"),
    ("p5", "Ethernet5", "p6", "Ethernet5"),
    ("p1", "Ethernet4", "rr1", "Ethernet1"),
    ("p2", "Ethernet4", "rr2", "Ethernet1"),
    ("p5", "Ethernet6", "asbr2", "Ethernet1"),
    ("p6", "Ethernet6", "dci1", "Ethernet1"),
    ("p6", "Ethernet7", "dci2", "Ethernet1"),
]
for i, pe in enumerate(["pe%d" % k for k in range(2, 13)]):
    p = ["p3", "p4", "p5", "p6"][i % 4]
    links.append((p, "Ethernet%d" % (10 + i), pe, "Ethernet1"))

routers = {n: {"name": n, "loopback": lo(n), "loopbackV6": lo6(n), "interfaces": []} for n in names}
for k, (a, ia, b, ib) in enumerate(links):
    net = "10.%d.%d" % (k // 200, k % 200 + 1)
    routers[a]["interfaces"].append({"name": ia, "address": "%s.0/31" % net, "peer": b})
    routers[b]["interfaces"].append({"name": ib, "address": "%s.1/31" % net, "peer": a})
# pe1's IPv6 link to p4, and its loopback.
routers["pe1"]["interfaces"].append({"name": "Ethernet5", "address": "2001:db8:0:15::/127", "peer": "p4"})
routers["p4"]["interfaces"].append({"name": "Ethernet9", "address": "2001:db8:0:15::1/127", "peer": "pe1"})
routers["pe1"]["interfaces"].append({"name": "Loopback0", "address": lo("pe1") + "/32"})
for t in (10, 11, 20, 30):
    routers["pe1"]["interfaces"].append({"name": "Tunnel%d" % t})


def nh(intf):
    """The far end of one of pe1's links."""
    for i in routers["pe1"]["interfaces"]:
        if i["name"] == intf:
            addr = i["address"].split("/")[0]  # pe1 holds the .0 (or ::) end of its links
            return addr + "1" if addr.endswith("::") else addr[:-1] + "1"
    raise KeyError(intf)


UP1, UP2, UP3 = "Ethernet1", "Ethernet2", "Port-Channel10"
remote = [n for n in names if n != "pe1"]
tunnels = []

# LDP: a label-switched path to every other loopback; ECMP over the two core uplinks.
for n in remote:
    vias = [{"nextHop": nh(UP1), "interface": UP1, "labels": "push %d" % (24000 + num[n])}]
    if n.startswith("pe") or n.startswith("dci"):
        vias.append({"nextHop": nh(UP2), "interface": UP2, "labels": "push %d" % (25000 + num[n])})
    tunnels.append({"table": "ldp", "index": num[n], "name": "ldp-" + n, "endpoint": n,
                    "entryMetric": 10 * (1 + num[n] % 4), "igpMetric": 10 * (1 + num[n] % 4),
                    "igpPref": 0, "vias": vias})

# IS-IS SR: node SIDs 16000 + n; the adjacent P routers are reached without a label (PHP).
for n in remote:
    if n.startswith("dci"):
        continue
    adjacent = n in ("p1", "p2")
    via = {"nextHop": nh(UP1 if n != "p2" else UP2), "interface": UP1 if n != "p2" else UP2}
    if not adjacent:
        via["labels"] = "push %d" % (16000 + num[n])
    tunnels.append({"table": "sr", "index": num[n], "name": "isis-sr-" + n, "endpoint": [n],
                    "entryMetric": 20 + num[n], "igpMetric": 20 + num[n], "igpMetric2": 0,
                    "igpPref": 0, "igpPref2": 0, "vias": [via]})

# OSPF SR towards the data-centre interconnects and their aggregation.
for n in ("dci1", "dci2", "p5", "p6"):
    tunnels.append({"table": "ospfSr", "index": num[n], "name": "ospf-sr-" + n, "endpoint": n,
                    "igpMetric": 30, "vias": [{"nextHop": nh(UP3), "interface": UP3,
                                               "labels": "push %d" % (18000 + num[n])}]})

# RSVP-TE head ends with fast reroute onto a bypass.
for i, n in enumerate(("pe5", "pe6", "pe9", "asbr2")):
    t = {"table": "rsvpLer", "index": 100 + i, "name": "te-pe1-%s" % n, "endpoint": n,
         "tunnelBw": 1.0e9 * (i + 1), "entryMetric": 15,
         "via": {"nextHop": nh(UP1), "interface": UP1, "labels": "push %d" % (800100 + i)},
         "backupVia": {"nextHop": nh(UP2), "interface": UP2,
                       "labels": "push 900010 %d" % (800100 + i)},
         "isPrimaryViaUsable": True, "seqNo": 3 + i, "metric": 15, "igpPref": 115,
         "isTunnelIgpShortcutEligible": i % 2 == 0, "isTunnelLdpTunnelingEligible": True}
    if i == 1:
        t["color"] = 200
    if i == 2:
        t["splitVias"] = [{"nextHop": nh(UP1), "interface": UP1, "labels": "push 800150"},
                          {"nextHop": nh(UP3), "interface": UP3, "labels": "push 800151"}]
    tunnels.append(t)

# RSVP bypass tunnels protecting pe1's uplinks.
for i, (intf, other) in enumerate(((UP1, UP2), (UP2, UP1))):
    tunnels.append({"table": "rsvpFrr", "index": 10 + i, "name": "bypass-" + intf.lower(),
                    "endpoint": "p%d" % (i + 1),
                    "via": {"nextHop": nh(other), "interface": other, "labels": "push %d" % (900010 + i)},
                    "isPrimaryViaUsable": True, "seqNo": 1})

# TI-LFA repair paths.
for i, n in enumerate(("p3", "p4", "pe2")):
    tunnels.append({"table": "tiLfa", "index": 200 + i, "name": "tilfa-" + n, "endpoint": n,
                    "via": {"nextHop": nh(UP1), "interface": UP1, "labels": "push %d" % (16000 + num[n])},
                    "backupVia": {"nextHop": nh(UP2), "interface": UP2,
                                  "labels": "push 16004 %d" % (16000 + num[n])},
                    "isPrimaryViaUsable": True, "seqNo": 1})

# BGP labelled unicast: routes of a neighbouring AS, carried over LDP to the ASBRs.
for i in range(6):
    asbr = "asbr1" if i % 2 == 0 else "asbr2"
    tunnels.append({"table": "bgpLu", "index": 300 + i, "name": "bgplu-192.0.2.%d" % (i + 1),
                    "endpoint": "192.0.2.%d/32" % (i + 1),
                    "vias": [{"tunnel": {"table": "ldp", "index": num[asbr]}}],
                    "labels": "push %d" % (100200 + i), "contribution": "contributing",
                    "bgpMetric": 100 + i, "bgpMetricType": "aigpMetric", "bgpPref": 100,
                    "bgpPref2": 0, "bgpLinkBw": 1.25e9})
for i in range(2):
    tunnels.append({"table": "bgpLuPush", "index": 400 + i, "name": "bgplu-push-%d" % i,
                    "endpoint": "198.51.100.%d/32" % (i + 1),
                    "vias": [{"nextHop": nh("Ethernet3/1"), "interface": "Ethernet3/1"}],
                    "labels": "push %d 3" % (100300 + i)})

# Static MPLS tunnels with a backup path.
for i, n in enumerate(("pe11", "pe12", "rr1")):
    tunnels.append({"table": "static", "index": 1 + i, "name": "static-" + n, "endpoint": n,
                    "vias": [{"nextHop": nh(UP1), "interface": UP1, "labels": "push %d" % (500 + i)}],
                    "backupVias": [{"nextHop": nh(UP2), "interface": UP2, "labels": "push %d" % (600 + i)}]})

# Nexthop-group tunnels.
for i, n in enumerate(("pe7", "pe8")):
    tunnels.append({"table": "nexthopGroup", "index": 1 + i, "name": "nhg-" + n, "endpoint": n,
                    "nhgId": 4000 + i, "igpMetric": 10, "igpPref": 0})

# SR-TE: segment lists and the colored policies that use them.
for i, (n, sids) in enumerate((("pe5", [16003, 16005, 16011]), ("pe6", [16004, 16016]),
                               ("pe10", [16009, 16021]))):
    tunnels.append({"table": "srTeSegmentList", "index": 50 + i, "name": "sl-%s-%d" % (n, i),
                    "endpoint": n, "vias": [{"nextHop": nh(UP1), "interface": UP1,
                                             "labels": "push " + " ".join(map(str, sids))}]})
    tunnels.append({"table": "srTePolicy", "index": 60 + i, "name": "policy-%s-c%d" % (n, 100 * (i + 1)),
                    "endpoint": n, "color": 100 * (i + 1), "igpPref": 0, "igpMetric": 40,
                    "nexthopTunnel": {"table": "srTeSegmentList", "index": 50 + i}})

# IS-IS flex-algo 128 (low-delay plane).
for n in ("pe3", "pe4", "pe9", "pe10"):
    tunnels.append({"table": "isisFlexAlgoTunnel", "index": num[n], "name": "fa128-" + n,
                    "endpoint": n, "color": 128, "isColored": True, "igpMetric": 5, "igpPref": 0,
                    "vias": [{"nextHop": nh(UP3), "interface": UP3, "labels": "push %d" % (17000 + num[n])}]})

# SBFD sessions created through the SDK.
for i, n in enumerate(("pe2", "pe3")):
    tunnels.append({"table": "nimboSdkSbfd", "index": 70 + i, "name": "sbfd-" + n, "endpoint": n,
                    "via": {"nextHop": nh(UP1), "interface": UP1,
                            "cosLabels": [{"cos": 0, "labels": "push %d" % (16000 + num[n])},
                                          {"cos": 5, "labels": "push 17001 %d" % (16000 + num[n])}]}})

# GRE and IPsec tunnel interfaces (index = the TunnelN port).
tunnels.append({"table": "greTunnelInterface", "interface": "Tunnel10", "name": "gre-to-dci1",
                "endpoint": "dci1", "vias": [{"nextHop": nh(UP3), "interface": UP3}],
                "tunnelInfo": {"srcAddr": lo("pe1"), "dstAddr": lo("dci1"), "okey": 1010,
                               "ikey": 1010, "mtu": 1476, "ttl": 64, "pathMtuDiscovery": True}})
tunnels.append({"table": "greTunnelInterface", "interface": "Tunnel11", "name": "gre-to-dci2",
                "endpoint": "dci2", "vias": [{"nextHop": nh(UP3), "interface": UP3}],
                "tunnelInfo": {"srcAddr": lo("pe1"), "dstAddr": lo("dci2"), "mtu": 1476, "ttl": 64,
                               "dontFragment": True}})
tunnels.append({"table": "ipsecGreTunnelInterface", "interface": "Tunnel20", "name": "ipsec-gre-branch",
                "endpoint": "203.0.113.10/32", "vias": [{"nextHop": nh("Ethernet3/1"), "interface": "Ethernet3/1"}],
                "tunnelInfo": {"srcAddr": lo("pe1"), "dstAddr": "203.0.113.10", "mtu": 1400,
                               "spiIn": 4096, "spiOut": 8192, "ttl": 64}})
tunnels.append({"table": "ipsecVtiTunnelInterface", "interface": "Tunnel30", "name": "vti-cloud",
                "endpoint": "203.0.113.20/32", "vias": [{"nextHop": nh("Ethernet3/1"), "interface": "Ethernet3/1"}],
                "tunnelInfo": {"srcAddr": lo("pe1"), "dstAddr": "203.0.113.20", "mtu": 1400,
                               "spiIn": 4097, "spiOut": 8193, "ttl": 64}})

# EVPN VXLAN: a VTEP per remote PE of the fabric; indexes as the table hands them out.
for n in ("pe2", "pe3", "pe4", "pe5", "dci1", "dci2"):
    tunnels.append({"table": "evpnVxlan",
                    "tunnelInfo": {"srcAddr": lo("pe1"), "dstAddr": lo(n), "udpPort": 4789, "ttl": 255}})

# mLDP: point-to-multipoint trees rooted at pe1 (multicast VPN default and data trees, one
# in-band (S,G) tree) and a multipoint-to-multipoint tree rooted at rr1; each via is a branch the
# traffic is replicated over, with the label the downstream router advertised.
mldp_trees = [
    ("p2mp root %s lsp-id 1" % lo("pe1"), [UP1, UP2]),
    ("p2mp root %s lsp-id 2" % lo("pe1"), [UP1]),
    ("p2mp root %s source 198.51.100.10 group 232.1.1.1" % lo("pe1"), [UP2, UP3]),
    ("mp2mp root %s lsp-id 7" % lo("rr1"), [UP1]),
]
for i, (tree, branches) in enumerate(mldp_trees):
    tunnels.append({"table": "mldpTunnel", "index": 1 + i, "mcastTreeId": tree,
                    "vias": [{"nextHop": nh(b), "interface": b,
                              "labels": "push %d" % (31000 + 100 * i + k)}
                             for k, b in enumerate(branches)]})

network = {"name": "sp-core-pe1", "localRouter": "pe1",
           "routers": [routers[n] for n in names], "tunnels": tunnels}

update = copy.deepcopy(network)
ut = update["tunnels"]
# pe3's LDP path moves to the second uplink with a worse metric.
for t in ut:
    if t["table"] == "ldp" and t["index"] == num["pe3"]:
        t["entryMetric"] = 40
        t["igpMetric"] = 40
        t["vias"] = [{"nextHop": nh(UP2), "interface": UP2, "labels": "push 25203"}]
# The static tunnel to rr1 is withdrawn, and one BGP-LU route is lost.
ut[:] = [t for t in ut if not (t["table"] == "static" and t["index"] == 3)]
ut[:] = [t for t in ut if not (t["table"] == "bgpLu" and t["index"] == 305)]
# A new SR tunnel (a node SID for dci1 learnt over IS-IS) and a new VTEP.
ut.append({"table": "sr", "index": num["dci1"], "name": "isis-sr-dci1", "endpoint": "dci1",
           "igpMetric": 45, "vias": [{"nextHop": nh(UP3), "interface": UP3, "labels": "push %d" % (16000 + num["dci1"])}]})
ut.append({"table": "evpnVxlan", "tunnelInfo": {"srcAddr": lo("pe1"), "dstAddr": lo("pe6"),
                                               "udpPort": 4789, "ttl": 255}})
# A receiver behind p3 joins mLDP tree 2: the tree gains a branch over the port-channel.
for t in ut:
    if t["table"] == "mldpTunnel" and t["index"] == 2:
        t["vias"].append({"nextHop": nh(UP3), "interface": UP3, "labels": "push 31101"})

for fname, doc in (("network.json", network), ("network-update.json", update)):
    with open(os.path.join(HERE, fname), "w") as f:
        json.dump(doc, f, indent=1)
        f.write("\n")
