"""Runs the real program in a sandbox that looks to it like a gateway."""
