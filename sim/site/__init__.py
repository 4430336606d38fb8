"""The lab as a site: access points with positions on floors, that hear each other.

A site file (docs/virtual-ap.md, "Site format") places access points and unmanaged external
neighbours on floors, with walls; `office(n)` makes the generated one (n access points on a
grid 15 m apart). The propagation model (log-distance path loss per band, walls, floors, and a
seeded bounded fading term per link) turns each access point's *current* channel and transmit
power, read from its radio state files, into what every other access point's radios hear.

One process holds the whole site (`SiteKeeper`, run by the lab): it sees every access point's
radios, computes every link once, and tells each orvd-vdev what its radios hear through the
simulator's `neighbours` control command. Each orvd-vdev stays one device of its own.

  model         the site: access points, externals, walls, the propagation parameters; files
  propagation   path loss, walls, floors and fading: the power one radio receives from another
  radios        the radios of the site as they are now (from the radio state files)
  keeper        SiteKeeper: keeps every access point's heard neighbours up to date
  interference  the site's co-channel interference: the pairs and their sum per band
"""
from .interference import Pair, site_interference
from .keeper import SiteKeeper
from .model import Site, SiteError, load_site, office

__all__ = ["Pair", "Site", "SiteError", "SiteKeeper", "load_site", "office", "site_interference"]
