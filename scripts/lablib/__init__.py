"""The live lab: the unchanged orvd on one or more virtual access points, planned by the
reference RRM service, shown as it happens. Run it through scripts/lab (which builds first).

For each access point it makes a private device root, starts orvd-vdev on it, starts orvd in
RRM mode with the emulated driver preloaded, and lets orvd-vdev announce hostapd so that the
agent reads the radios. The reference service runs in this process (sim/controller, policy
mode) on a free loopback port. What the person sees, with times from the start:

* each subscription (radios, VAPs, clients),
* each scan request and what the access point heard, per radio and channel,
* each decision (channel, bandwidth, power per radio; 802.11k and 802.11r with several),
* what the virtual access point applied: every update orvd sent to networkd, as recorded in
  orvd-vdev's request log, with the radio's resulting chanspec decoded and its power, the
  802.11k neighbour-report commands orvd wrote and the 802.11r key holders it configured.

It runs until Ctrl-C (or SIGTERM) or --duration, then stops orvd, the service and orvd-vdev
in that order, removes the device roots and exits 0. A program that ends on its own ends the
lab with status 1 and the last lines it wrote.

The modules, by concern:

  cli          the options and main()
  runner       Lab: starts the programs, watches them and the service, stops them in order
  events       the text of each event (subscriptions, scans, decisions, what was applied)
  display      timed lines on standard output
  programs     one child process, its output and its end
  accesspoint  one access point: its scenario, device root, request log and report files
  addresses    MAC addresses, chanspecs, neighbour-report commands; who an address is
  report       the page of what happened on a site (plans before and after, decisions), a
               package: page assembles the sections summary, plans, decisions, heard and
               neighbours, which draw on site, colours, bands and values
"""
import pathlib
import sys

sys.dont_write_bytecode = True  # the lab leaves nothing behind, not even in the source tree

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TOP))  # for sim.controller, the reference service
