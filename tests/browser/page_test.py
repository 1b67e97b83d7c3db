#!/usr/bin/python3
"""The admin page in a real browser, served by lighttpd as the demo serves
it: log in, see the dashboard, save settings with an invalid field and see
the note next to it, save valid ones and see them after a reload, change the
theme, upload a file with its progress and see it listed (and a second
upload of the same name refused), log out, see the theme after a new login,
lose the session and land on the login form. No console error and no CSP violation anywhere. A screenshot
of each step goes to SHOTS_DIR.

usage: page_test.py BUILD_DIR LAYOUT_SCRIPT SESSION_TOOL SHOTS_DIR
Run it with /usr/bin/python3 (Debian's websockets)."""
import asyncio
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

from cdp import Browser


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def start_server(build, layout, work):
    port = free_port()
    subprocess.run(["bash", layout, build, work, str(port)], check=True, stdout=subprocess.DEVNULL)
    lighttpd = shutil.which("lighttpd") or "/usr/sbin/lighttpd"
    server = subprocess.Popen([lighttpd, "-D", "-f", os.path.join(work, "lighttpd.conf")])
    for _ in range(100):
        try:
            socket.create_connection(("127.0.0.1", port), timeout=1).close()
            return server, port
        except OSError:
            if server.poll() is not None:
                raise RuntimeError("lighttpd exited")
            time.sleep(0.05)
    server.kill()
    raise RuntimeError("lighttpd did not answer")


async def log_in(b, user, password):
    await b.fill("#login-user", user)
    await b.fill("#login-password", password)
    await b.click("#login-submit")


async def flow(base, work, session_tool, shots):
    password = open(os.path.join(work, "demo-password")).read().strip()
    b = Browser()
    step = 0

    async def shot(name):
        nonlocal step
        step += 1
        await b.screenshot(os.path.join(shots, f"{step:02d}-{name}.png"))

    try:
        await b.start()
        await b.goto(base + "/")
        await b.wait_for("!document.querySelector('#login-view').hidden")
        assert not await b.visible("#dashboard-view")
        await shot("login-form")

        await log_in(b, "demo", "wrong")
        await b.wait_for("document.querySelector('#login-message').textContent.startsWith('Wrong')")
        assert await b.text("#login-message") == "Wrong user name or password."
        assert not [c for c in await b.cookies() if c["name"] == "id"], "a cookie after a failed login"
        await shot("wrong-password")

        await log_in(b, "demo", password)
        await b.wait_for("document.querySelector('#sys-hostname').textContent !== ''")
        assert await b.text("#whoami") == "demo"
        assert "minute" in await b.text("#sys-uptime")
        assert await b.js("document.querySelectorAll('#sys-volumes tbody tr').length") >= 1
        session = [c for c in await b.cookies() if c["name"] == "id"]
        assert session and session[0]["httpOnly"] and session[0]["sameSite"] == "Strict", session
        await b.wait_for("document.querySelector('#settings-refresh').value !== ''")
        await shot("dashboard")

        await b.fill("#settings-title-input", "Lab NAS")
        await b.fill("#settings-refresh", "1")
        await b.click("#settings-save")
        await b.wait_for("document.querySelector('#error-refresh_seconds').textContent !== ''")
        assert await b.text("#error-refresh_seconds") == "Must be a whole number from 5 to 3600."
        assert await b.js("document.querySelector('#settings-refresh').getAttribute('aria-invalid')") == "true"
        assert await b.text("#error-title") == ""
        assert await b.text("#settings-message") == \
            "Some values are not valid. See the notes next to the fields."
        await shot("settings-field-error")

        await b.fill("#settings-refresh", "45")
        await b.click("#settings-save")
        await b.wait_for("document.querySelector('#settings-message').textContent === 'Saved.'")
        assert await b.text("#error-refresh_seconds") == ""
        await b.reload()
        await b.wait_for("document.querySelector('#settings-refresh').value === '45'")
        assert await b.js("document.querySelector('#settings-title-input').value") == "Lab NAS"
        assert await b.visible("#dashboard-view"), "a reload lost the session"
        await shot("settings-after-reload")

        await b.js("document.querySelector('#preferences-theme').value = 'dark'")
        await b.click("#preferences-save")
        await b.wait_for("document.documentElement.dataset.theme === 'dark'")
        await b.wait_for("document.querySelector('#preferences-message').textContent === 'Saved.'")
        await shot("theme-dark")

        upload = os.path.join(work, "notes from the lab.txt")
        with open(upload, "w") as f:
            f.write("firmware 2.1 tested\n" * 4000)
        await b.set_files("#upload-file", [upload])
        await b.click("#upload-submit")
        await b.wait_for("document.querySelector('#upload-message').textContent.startsWith('Uploaded')")
        assert await b.text("#upload-message") == "Uploaded notes from the lab.txt.", await b.text("#upload-message")
        assert await b.js("document.querySelector('#upload-progress').value") == 100
        await b.wait_for("document.querySelector('#files-list tbody').textContent.includes('notes from the lab.txt')")
        await b.js("document.querySelector('#files-title').scrollIntoView()")
        await shot("upload")
        await b.set_files("#upload-file", [upload])
        await b.click("#upload-submit")
        await b.wait_for("document.querySelector('#upload-message').textContent.startsWith('The upload')")
        assert await b.text("#upload-message") == \
            "The upload was refused: a file of that name is already there.", await b.text("#upload-message")
        await b.js("window.scrollTo(0, 0)")

        await b.click("#logout")
        await b.wait_for("!document.querySelector('#login-view').hidden")
        assert await b.text("#login-message") == "You have logged out."
        assert await b.js("document.documentElement.dataset.theme") == "light"
        await shot("logged-out")

        await log_in(b, "demo", password)
        await b.wait_for("!document.querySelector('#dashboard-view').hidden")
        await b.wait_for("document.documentElement.dataset.theme === 'dark'")
        await b.wait_for("document.querySelector('#preferences-theme').value === 'dark'")
        await shot("theme-after-new-login")

        # The session ends on the server (revoked by the operator): the next
        # call sends the user to the login form, saying so.
        subprocess.run([session_tool, "--root", os.path.join(work, "root"), "revoke", "--user", "demo"],
                       check=True, stdout=subprocess.DEVNULL)
        await b.click("#settings-save")
        await b.wait_for("!document.querySelector('#login-view').hidden")
        assert await b.text("#login-message") == "Your session has ended. Please log in again.", \
            await b.text("#login-message")
        assert not await b.visible("#dashboard-view")
        await shot("session-ended")

        await asyncio.sleep(0.3)
        await b.js("1")  # collect what the page reported meanwhile
        assert not b.problems, "\n".join(b.problems)
        print(f"admin page OK: {step} steps, screenshots in {shots}")
    finally:
        await b.close()


def main():
    build, layout, session_tool, shots = sys.argv[1:5]
    shutil.rmtree(shots, ignore_errors=True)  # only this run's steps
    os.makedirs(shots)
    work = tempfile.mkdtemp(prefix="browser-", dir=build)
    server = None
    try:
        server, port = start_server(build, layout, work)
        asyncio.run(asyncio.wait_for(flow(f"http://127.0.0.1:{port}", work, session_tool, shots), 150))
    finally:
        if server:
            server.send_signal(signal.SIGTERM)
            try:
                server.wait(timeout=10)
            except subprocess.TimeoutExpired:
                server.kill()
        if not os.environ.get("BROWSER_KEEP"):
            shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
