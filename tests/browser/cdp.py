"""A small driver for headless Chromium over the DevTools protocol, with
nothing but Debian's python3-websockets. Keeps every console error, page
exception and security (CSP) report the page produced, so a test can
assert there were none."""
import asyncio
import base64
import itertools
import json
import os
import shutil
import subprocess
import tempfile
import time

import websockets


class Browser:
    def __init__(self, chromium="/usr/bin/chromium", width=1100, height=900):
        self.profile = tempfile.mkdtemp(prefix="webapi-chromium-")
        self.proc = subprocess.Popen(
            [chromium, "--headless", "--no-sandbox", "--disable-gpu", "--no-first-run",
             "--remote-debugging-port=0", f"--user-data-dir={self.profile}",
             f"--window-size={width},{height}", "about:blank"],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.ids = itertools.count(1)
        self.problems = []  # console errors, exceptions, CSP reports

    async def start(self):
        port_file = os.path.join(self.profile, "DevToolsActivePort")
        for _ in range(400):
            if os.path.exists(port_file):
                lines = open(port_file).read().split()
                if len(lines) == 2:
                    break
            await asyncio.sleep(0.05)
        else:
            raise RuntimeError("chromium did not start")
        self.ws = await websockets.connect(f"ws://127.0.0.1:{lines[0]}{lines[1]}", max_size=None)
        target = await self.send("Target.createTarget", url="about:blank")
        attached = await self.send("Target.attachToTarget", targetId=target["targetId"], flatten=True)
        self.session = attached["sessionId"]
        for domain in ("Page", "Runtime", "Log", "Network"):
            await self.send(f"{domain}.enable", session=True)

    def _note(self, message):
        method, params = message.get("method"), message.get("params", {})
        if method == "Runtime.exceptionThrown":
            self.problems.append("exception: " + json.dumps(params["exceptionDetails"])[:400])
        elif method == "Runtime.consoleAPICalled" and params.get("type") in ("error", "assert"):
            self.problems.append("console: " + json.dumps(params.get("args"))[:400])
        elif method == "Log.entryAdded":
            entry = params["entry"]
            if entry.get("level") == "error" or entry.get("source") in ("security", "violation"):
                self.problems.append(f"log ({entry.get('source')}): {entry.get('text')}")

    async def send(self, method, session=False, **params):
        msg_id = next(self.ids)
        msg = {"id": msg_id, "method": method, "params": params}
        if session:
            msg["sessionId"] = self.session
        await self.ws.send(json.dumps(msg))
        while True:
            reply = json.loads(await self.ws.recv())
            if reply.get("id") == msg_id:
                if "error" in reply:
                    raise RuntimeError(f"{method}: {reply['error']}")
                return reply.get("result", {})
            self._note(reply)

    async def goto(self, url):
        await self.send("Page.navigate", session=True, url=url)
        await self.wait_for("document.readyState === 'complete'")

    async def reload(self):
        await self.send("Page.reload", session=True)
        await asyncio.sleep(0.2)
        await self.wait_for("document.readyState === 'complete'")

    async def js(self, expression):
        r = await self.send("Runtime.evaluate", session=True, expression=expression,
                            awaitPromise=True, returnByValue=True)
        if "exceptionDetails" in r:
            raise RuntimeError(f"JS error in {expression}: {r['exceptionDetails']}")
        return r["result"].get("value")

    async def wait_for(self, expression, timeout=15.0):
        end = time.monotonic() + timeout
        while time.monotonic() < end:
            try:
                if await self.js(expression):
                    return
            except RuntimeError:
                pass  # the page is still navigating
            await asyncio.sleep(0.05)
        raise TimeoutError(expression)

    async def fill(self, selector, value):
        await self.js(f"(() => {{ const e = document.querySelector({json.dumps(selector)});"
                      f" e.value = {json.dumps(value)};"
                      f" e.dispatchEvent(new Event('input', {{bubbles: true}})); }})()")

    async def set_files(self, selector, paths):
        document = await self.send("DOM.getDocument", session=True)
        node = await self.send("DOM.querySelector", session=True,
                               nodeId=document["root"]["nodeId"], selector=selector)
        await self.send("DOM.setFileInputFiles", session=True, nodeId=node["nodeId"], files=paths)

    async def click(self, selector):
        await self.js(f"document.querySelector({json.dumps(selector)}).click()")

    async def text(self, selector):
        return await self.js(f"document.querySelector({json.dumps(selector)}).textContent")

    async def visible(self, selector):
        return await self.js(f"!document.querySelector({json.dumps(selector)}).closest('[hidden]')")

    async def cookies(self):
        return (await self.send("Network.getCookies", session=True))["cookies"]

    async def screenshot(self, path):
        data = await self.send("Page.captureScreenshot", session=True, format="png")
        with open(path, "wb") as f:
            f.write(base64.b64decode(data["data"]))

    async def close(self):
        try:
            await self.ws.close()
        finally:
            self.proc.terminate()
            try:
                self.proc.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.proc.kill()
            shutil.rmtree(self.profile, ignore_errors=True)
