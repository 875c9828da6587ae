#!/usr/bin/python3
"""Walks tarn-desktop's accessibility tree as a screen reader sees it, over
the AT-SPI bus, and names every element a reader could not use.

    a11y_walk.py DEVICE_NAME [--photos] [--dump]

Waits (bounded) for the window and for the device's overview (with
--photos: for its photo grid); exits 0 when every check holds, 1 with one
line per finding otherwise."""
import re
import sys
import time

import pyatspi

DEVICE_NAME = sys.argv[1]
DUMP = "--dump" in sys.argv
PHOTOS = "--photos" in sys.argv
PATIENCE_S = 60

# What a person acts on: each needs a name to be spoken and a role.
INTERACTIVE = {
    pyatspi.ROLE_PUSH_BUTTON, pyatspi.ROLE_TOGGLE_BUTTON, pyatspi.ROLE_CHECK_BOX, pyatspi.ROLE_RADIO_BUTTON,
    pyatspi.ROLE_MENU_ITEM, pyatspi.ROLE_MENU, pyatspi.ROLE_LIST, pyatspi.ROLE_TABLE, pyatspi.ROLE_TREE,
    pyatspi.ROLE_TREE_TABLE, pyatspi.ROLE_TEXT, pyatspi.ROLE_ENTRY, pyatspi.ROLE_PASSWORD_TEXT,
    pyatspi.ROLE_COMBO_BOX, pyatspi.ROLE_PAGE_TAB, pyatspi.ROLE_SPIN_BUTTON, pyatspi.ROLE_SLIDER,
}
# Their rows and cells are named by their content, which may be empty.
CELLS = {pyatspi.ROLE_TABLE_CELL, pyatspi.ROLE_LIST_ITEM, pyatspi.ROLE_TREE_ITEM, pyatspi.ROLE_COLUMN_HEADER,
         pyatspi.ROLE_ROW_HEADER, pyatspi.ROLE_TABLE_ROW}


def find_app():
    desktop = pyatspi.Registry.getDesktop(0)
    for i in range(desktop.childCount):
        app = desktop.getChildAtIndex(i)
        if app is not None and app.name == "tarn-desktop":
            return app
    return None


def walk(node, depth=0, out=None):
    """Every element under node, as (node, depth); cells are not descended into."""
    out = [] if out is None else out
    out.append((node, depth))
    try:
        role = node.getRole()
        count = node.childCount
    except Exception:
        return out
    if role in (pyatspi.ROLE_TABLE, pyatspi.ROLE_TREE, pyatspi.ROLE_TREE_TABLE, pyatspi.ROLE_LIST):
        return out
    for i in range(count):
        child = node.getChildAtIndex(i)
        if child is not None:
            walk(child, depth + 1, out)
    return out


def overview_ready(app):
    for node, _ in walk(app):
        if node.getRole() == pyatspi.ROLE_LABEL and node.name == "Name: " + DEVICE_NAME:
            return True
    return False


def photo_items(app):
    """The named items of the photo grid, once it has pictures."""
    grid = next((n for n, _ in walk(app) if n.getRole() == pyatspi.ROLE_LIST and n.name == "Photos"), None)
    if grid is None:
        return []
    items = [grid.getChildAtIndex(i) for i in range(min(grid.childCount, 200))]
    return [i.name or "" for i in items if i is not None]


# A picture is spoken as "FILE.EXT, DATE, KIND": a date heading has no
# file name before it.
PICTURE = re.compile(r"^[^,]+\.[A-Za-z0-9]{2,4}, (.+), (photo|video|Live Photo|screenshot|picture)")


def check_photos():
    deadline = time.monotonic() + PATIENCE_S
    names = []
    while time.monotonic() < deadline:
        try:
            app = find_app()
            names = photo_items(app) if app is not None else []
            if any(PICTURE.match(n) for n in names):
                break
        except Exception:
            pass
        time.sleep(0.5)
    findings = []
    pictures = [n for n in names if PICTURE.match(n)]
    if DUMP:
        print("photo grid items: %s" % names)
    if not pictures:
        findings.append("the photo grid offered no item named by file, date and kind within %d s: %s" %
                        (PATIENCE_S, names[:10]))
    for n in pictures:
        if not re.search(r"\d", PICTURE.match(n).group(1)):
            findings.append("the picture %r is not named with its date" % n)
    if any(not n.strip() for n in names):
        findings.append("the photo grid has items without a name")
    for f in findings:
        print("FAIL: " + f)
    print("%d grid items, %d pictures, %d finding(s)" % (len(names), len(pictures), len(findings)))
    return 1 if findings else 0


def main():
    if PHOTOS:
        return check_photos()
    deadline = time.monotonic() + PATIENCE_S
    app = None
    while time.monotonic() < deadline:
        try:
            app = find_app()
            if app is not None and overview_ready(app):
                break
        except Exception:  # the window is coming up while it is asked
            pass
        time.sleep(0.5)
    else:
        if app is None:
            print("FAIL: no application named tarn-desktop on the accessibility bus within %d s" % PATIENCE_S)
        else:
            print("FAIL: the overview never offered a label 'Name: %s' within %d s" % (DEVICE_NAME, PATIENCE_S))
        return 1

    nodes = walk(app)
    findings = []
    labels = []
    for node, depth in nodes:
        role = node.getRole()
        name = node.name or ""
        states = node.getState()
        if DUMP:
            print("%s%s %r %r%s" % ("  " * depth, node.getRoleName(), name, node.description,
                                    "" if states.contains(pyatspi.STATE_SHOWING) else " (hidden)"))
        if role == pyatspi.ROLE_LABEL:
            labels.append(name)
        if role in CELLS:
            continue
        if role in INTERACTIVE and not name.strip():
            parent = node.parent.name if node.parent is not None else ""
            findings.append("%s without a name (inside %r)" % (node.getRoleName(), parent))
        if role == pyatspi.ROLE_UNKNOWN and (role in INTERACTIVE or states.contains(pyatspi.STATE_FOCUSABLE)):
            findings.append("focusable element %r without a role" % name)

    # The overview's values are spoken with them, not by their field alone.
    if "Name: " + DEVICE_NAME not in labels:
        findings.append("no label spoken as %r (labels: %s)" % ("Name: " + DEVICE_NAME, labels))
    for field in ("Model: ", "Version: ", "Capacity: ", "Free: "):
        if not any(label.startswith(field) and len(label) > len(field) for label in labels):
            findings.append("no label spoken as %r followed by its value (labels: %s)" % (field, labels))

    # The sidebar's rows: the device by its name, and its sections.
    sidebar = next((n for n, _ in nodes if n.name == "Devices and their sections"), None)
    if sidebar is None:
        findings.append("no sidebar named 'Devices and their sections'")
    else:
        rows = [sidebar.getChildAtIndex(i) for i in range(sidebar.childCount)]
        rows = [r for r in rows if r is not None and r.getRole() not in (pyatspi.ROLE_COLUMN_HEADER,)]
        names = [r.name for r in rows]
        if DUMP:
            print("sidebar rows: %s" % names)
        if not any(DEVICE_NAME in n for n in names):
            findings.append("the sidebar does not name the device %r: %s" % (DEVICE_NAME, names))
        if any(not n.strip() for n in names):
            findings.append("the sidebar has rows without a name: %s" % names)

    bar = next((n for n, _ in nodes if n.name == "Storage use"), None)
    if bar is None:
        findings.append("no element named 'Storage use'")
    else:
        if "in all" not in (bar.description or ""):
            findings.append("the storage bar's description says nothing of its use: %r" % bar.description)
        if not bar.getState().contains(pyatspi.STATE_FOCUSABLE):
            findings.append("the storage bar cannot take focus")
    progress = next((n for n, _ in nodes if n.getRole() == pyatspi.ROLE_PROGRESS_BAR), None)
    if progress is None:
        findings.append("no progress bar in the window")
    else:
        if not progress.name:
            findings.append("the progress bar has no name")
        if not progress.description:
            findings.append("the progress bar has no description")
        try:
            progress.queryValue()
        except NotImplementedError:
            findings.append("the progress bar offers no value")

    checked = sum(1 for n, _ in nodes if n.getRole() in INTERACTIVE)
    for f in findings:
        print("FAIL: " + f)
    print("%d elements, %d interactive, %d finding(s)" % (len(nodes), checked, len(findings)))
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main())
