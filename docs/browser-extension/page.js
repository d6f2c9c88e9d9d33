"use strict";

// A port is one process of the bridge. The browser starts it in `connect` and ends it when the page
// closes. Responses arrive in the order of the requests.
let port = null;

function show(text) {
  document.getElementById("serial").value = text;
}

function connect() {
  port = chrome.runtime.connectNative("ktclientd");
  port.onMessage.addListener((response) => {
    const serial = response.sensor?.hardware?.bios_serial_number;
    show(serial ?? response.error_message ?? response.status);
  });
  // No daemon, no response in time, or no permission: the bridge ends, and says why on its standard
  // error only. Firefox has its own reason in the port, Chromium in the runtime.
  port.onDisconnect.addListener((ended) => {
    const reason = ended.error ?? chrome.runtime.lastError;
    show(`no answer: ${reason?.message ?? "the bridge has ended"}`);
    port = null;
  });
}

function ask() {
  show("…");
  if (port === null) connect();
  port.postMessage({sensor: {hardware: null}});
}

document.getElementById("again").addEventListener("click", ask);
ask();
