"""Docstrings of this project are plain text; this makes of them what Sphinx reads.

What they say of a parameter, `name: what it is` or `name(arguments), other(arguments): what it is`, at the
beginning of a paragraph or after a full stop in it, comes to stand with the parameter's type."""

from __future__ import annotations

import inspect
import re
from typing import Any, Iterable, Iterator, Optional

from docutils import nodes
from sphinx.addnodes import pending_xref
from sphinx.application import Sphinx
from sphinx.util.nodes import make_refnode

_NAME = r"[a-z_]\w*(?:\([^)]*\))?"
_ENTRY = re.compile(rf"(?:^|(?<=\. ))({_NAME}(?:, {_NAME})*): ")
#: Where programs find a name, in the order of looking.
_PUBLIC = ("tavrin_media_relay.aio", "tavrin_media_relay.testing", "tavrin_media_relay")


def paragraphs(lines: Iterable[str]) -> Iterator[list[str]]:
    paragraph: list[str] = []
    for line in [*lines, ""]:
        if line.strip():
            paragraph.append(line)
        elif paragraph:
            yield paragraph
            paragraph = []


def entries(text: str, parameters: Iterable[str]) -> Iterator[tuple[str, str]]:
    """What a paragraph about parameters says of each; nothing of any other paragraph."""
    found = [match for match in _ENTRY.finditer(text) if re.match(r"\w+", match[1])[0] in parameters]
    if not found or found[0].start() != 0:
        return
    ends = [match.start() for match in found[1:]] + [len(text)]
    for match, end in zip(found, ends):
        what = text[match.end() : end].strip()
        for name, arguments in re.findall(r"(\w+)(\([^)]*\))?(?:, |$)", match[1]):
            yield name, (f"*{arguments}* " if arguments else "") + what


def parameters_of(what: str, obj: Any) -> list[str]:
    if what not in ("function", "method"):
        return []
    return [each for each in inspect.signature(obj).parameters if each not in ("self", "cls")]


def process(_app: Sphinx, what: str, _name: str, obj: Any, _options: object, lines: list[str]) -> None:
    parameters = parameters_of(what, obj)
    told: dict[str, str] = {}
    kept: list[str] = []
    for paragraph in paragraphs(lines):
        # An entry on a line of its own is one, wherever the one before it ended.
        text = re.sub(rf"[.]?\n(?={_NAME}(?:, {_NAME})*: )", ". ", "\n".join(paragraph))
        text, raises, errors = " ".join(text.split()).partition(" Raises ")
        found = dict(entries(text, parameters))
        told |= found
        if not found:
            kept += [*paragraph, ""]
        elif raises:
            kept += [raises.strip() + " " + errors, ""]
    lines[:] = kept + [f":param {name}: {told.get(name, '')}" for name in parameters]


def forget_needless_types(app: Sphinx, what: str, name: str, *_more: object) -> None:
    """A class is made by others, or of the fields that stand below it; and nothing is nothing to tell of."""
    annotations = app.env.temp_data.get("annotations", {})
    if what in ("class", "exception"):
        annotations.pop(name, None)
    elif annotations.get(name, {}).get("return") == "None":
        del annotations[name]["return"]


def mend_dashes(_app: Sphinx, doctree: nodes.document) -> None:
    """None behind a parameter of which its name and type tell all, and a true one behind the others."""
    for field in doctree.findall(nodes.field_body):
        for text in list(field.findall(nodes.Text)):
            if text == " -- ":
                idle = text.parent.astext().endswith(" -- ")
                text.parent.replace(text, nodes.Text("" if idle else " \u2013 "))


def find_public(
    app: Sphinx, env: Any, node: pending_xref, content: nodes.Element
) -> Optional[nodes.reference]:
    """Annotations name the module in which a class stands; its page has the one from which it is imported."""
    if node.get("refdomain") != "py" or node.get("reftype") == "obj":
        return None
    target = str(node["reftarget"])
    last = target.rpartition(".")[2]
    domain = env.get_domain("py")
    for module in _PUBLIC:
        found = domain.find_obj(env, module, None, last, None, 0)
        if found:
            name, entry = found[0]
            shown = nodes.Text(last) if content.astext() == target else content
            return make_refnode(app.builder, node["refdoc"], entry.docname, entry.node_id, [shown], name)
    return None


def setup(app: Sphinx) -> dict[str, bool]:
    app.connect("autodoc-process-docstring", process)
    app.connect("autodoc-process-signature", forget_needless_types, priority=900)
    app.connect("doctree-read", mend_dashes)
    app.connect("missing-reference", find_public)
    return {"parallel_read_safe": True}
