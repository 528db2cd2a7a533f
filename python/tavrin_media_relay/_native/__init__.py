"""Calls into native libraries other than the module's: resampling, picture layouts, and libsarnet's own
extras."""
