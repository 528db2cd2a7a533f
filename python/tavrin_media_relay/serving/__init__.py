"""Serving agents: programs that wait for rooms, one process a visit, on one machine or on many."""
