"""Bridges to agent frameworks, one module each. Each needs its framework, which is installed beside."""
