"""The reference RRM service for orvd: the service side of protocol 2.2 and a planning policy.

    from sim.controller import RrmService
    service = RrmService(policy=True).start()   # ws://127.0.0.1:<service.port>/<any path>
"""
from .policy import AccessPoint, Plan, Settings, plan
from .service import RrmService, SubscribeAnswer

__all__ = ["AccessPoint", "Plan", "RrmService", "Settings", "SubscribeAnswer", "plan"]
