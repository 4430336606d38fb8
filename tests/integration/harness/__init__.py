"""Test harness for running the real orvd programs on loopback."""
