"""How the pages become HTML: `./dev docs`. Nothing is fetched from anywhere."""

from __future__ import annotations

import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
ROOT = HERE.parent
sys.path[:0] = [str(HERE), str(ROOT / "python")]


sys.dont_write_bytecode = True

from build_support import stubs  # noqa: E402

stubs.load(ROOT / "python" / "_tavrin_video.pyi")

import tavrin_media_relay  # noqa: E402

project = "tavrin-media-relay"
author = "the tavrin-media-relay developers"
copyright = author
version = release = tavrin_media_relay.__version__

extensions = [
    "myst_parser",
    "sphinx.ext.autodoc",
    "build_support.plain_docstrings",
    "build_support.command_help",
    "build_support.complete_tables",
]
source_suffix = {".md": "markdown"}
exclude_patterns = ["build_support"]
default_role = "py:obj"  # what stands in backticks in a docstring: a link, if it is a name of ours
smartquotes = False
nitpicky = True
# Not every word in backticks is a name of ours, and other projects' pages are not asked for over the network.
nitpick_ignore_regex = [
    ("py:obj", ".*"),
    ("py:class", r"(datetime|pathlib|os|numpy|array|asyncio)\..*|Path"),
    ("py:class", "T|Samples|Int16Array|UInt8Array"),
]
highlight_language = "none"
myst_heading_anchors = 3

autodoc_member_order = "bysource"
autodoc_typehints = "description"
autodoc_typehints_format = "short"
add_module_names = False
python_use_unqualified_type_names = True
toc_object_entries_show_parents = "hide"

html_theme = "furo"
html_title = f"tavrin-media-relay {release}"
html_copy_source = False
html_show_sourcelink = False
html_show_copyright = False
html_static_path = ["style"]
html_css_files = ["pages.css"]
pygments_style = "friendly"
pygments_dark_style = "github-dark"
