// The admin page: a login form, then a dashboard over the example APIs.
// Every answer is the library's JSON envelope; every error becomes a
// sentence, never raw JSON. No inline script or handler anywhere, so the
// page runs under a Content-Security-Policy that allows scripts from its
// own origin only.
'use strict';

const $ = (id) => document.getElementById(id);

const MESSAGES = {
  0: 'The server cannot be reached. Check the connection and try again.',
  101: 'The request was incomplete.',
  102: 'This server does not offer that function.',
  103: 'This server does not offer that operation.',
  104: 'This server does not offer that version of the function.',
  105: 'Please log in.',
  106: 'Your session has expired. Please log in again.',
  107: 'Your session was ended: you logged in elsewhere, or your network address changed.',
  120: 'Some values are not valid. See the notes next to the fields.',
  121: 'The changes could not be saved. Try again, or ask the administrator.',
  130: 'The upload was refused.',
  131: 'Choose at least one file to upload.',
  400: 'Enter your user name and password.',
  401: 'Wrong user name or password.',
  402: 'This account may not log in now (locked or expired).',
  403: 'This account may not log in here.',
  503: 'The login service is not working. Ask the administrator.',
};
const SESSION_LOST = new Set([105, 106, 107]);

let token = sessionStorage.getItem('token') || '';
let refreshTimer = 0;

function errorText(error) {
  const code = error && typeof error.code === 'number' ? error.code : 0;
  if (code === 429) {
    const wait = error.errors && error.errors.retry_after;
    return `Too many failed attempts. Try again in ${wait || 60} seconds.`;
  }
  if (code < 0) return `The server answered with HTTP status ${-code}. Try again later.`;
  return MESSAGES[code] || `The server refused the request (error ${code}).`;
}

function say(element, text, kind) {
  element.textContent = text;
  element.className = 'message' + (kind ? ' ' + kind : '');
}

// Calls `method` of `api` served by /api/<program>. A state-changing call
// is a POST carrying the session's CSRF token.
async function call(program, api, method, params = {}, post = false) {
  const fields = new URLSearchParams({api, method, version: '1', ...params});
  let response;
  try {
    response = post
        ? await fetch(`/api/${program}`, {method: 'POST', headers: {'X-Mero-Token': token}, body: fields})
        : await fetch(`/api/${program}?${fields}`);
  } catch (failure) {
    return {success: false, error: {code: 0}};
  }
  if (!response.ok) return {success: false, error: {code: -response.status}};
  try {
    return await response.json();
  } catch (failure) {
    return {success: false, error: {code: -response.status}};
  }
}

// Calls that need a session: a lost session sends the user to the login
// form, saying why.
async function sessionCall(...args) {
  const envelope = await call(...args);
  const code = envelope.error && envelope.error.code;
  if (!envelope.success && SESSION_LOST.has(code)) {
    // Here the user was logged in: "no session" means it ended meanwhile.
    showLogin(code === 105 ? 'Your session has ended. Please log in again.' : errorText(envelope.error),
              'error');
    return null;
  }
  return envelope;
}

function applyPreferences(preferences) {
  document.documentElement.dataset.theme = preferences.theme === 'dark' ? 'dark' : 'light';
  if (preferences.language) document.documentElement.lang = preferences.language;
}

function showLogin(message, kind) {
  clearInterval(refreshTimer);
  token = '';
  sessionStorage.removeItem('token');
  applyPreferences({theme: 'light', language: 'en'});
  $('account').hidden = true;
  $('dashboard-view').hidden = true;
  $('login-view').hidden = false;
  $('login-password').value = '';
  say($('login-message'), message || '', kind);
  $('login-user').focus();
}

async function showDashboard(me) {
  token = me.token || token;
  sessionStorage.setItem('token', token);
  $('whoami').textContent = me.admin ? `${me.user} (administrator)` : me.user;
  $('account').hidden = false;
  $('login-view').hidden = true;
  $('dashboard-view').hidden = false;
  say($('page-message'), '');
  await loadPreferences();
  await loadSystem();
  await loadSettings();
  await loadFiles();
}

// ---- system panel ----

function duration(seconds) {
  const days = Math.floor(seconds / 86400), hours = Math.floor(seconds % 86400 / 3600);
  const minutes = Math.floor(seconds % 3600 / 60);
  const parts = [];
  if (days) parts.push(`${days} day${days === 1 ? '' : 's'}`);
  if (days || hours) parts.push(`${hours} hour${hours === 1 ? '' : 's'}`);
  parts.push(`${minutes} minute${minutes === 1 ? '' : 's'}`);
  return parts.join(', ');
}

function bytes(count) {
  const units = ['B', 'KB', 'MB', 'GB', 'TB', 'PB'];
  let unit = 0;
  while (count >= 1000 && unit < units.length - 1) { count /= 1000; ++unit; }
  return `${count.toFixed(count < 10 && unit ? 1 : 0)} ${units[unit]}`;
}

function cell(row, text, className) {
  const td = row.insertCell();
  td.textContent = text;
  if (className) td.className = className;
  return td;
}

async function loadSystem() {
  const envelope = await sessionCall('sysinfo', 'Demo.SystemInfo', 'get');
  if (!envelope) return;
  if (!envelope.success) return say($('page-message'), errorText(envelope.error), 'error');
  const info = envelope.data;
  $('sys-hostname').textContent = info.hostname;
  $('sys-uptime').textContent = duration(info.uptime);
  $('sys-load').textContent = info.load.map((value) => value.toFixed(2)).join(', ');
  const body = $('sys-volumes').tBodies[0];
  body.replaceChildren();
  for (const volume of info.volumes) {
    const row = body.insertRow();
    cell(row, volume.mount);
    cell(row, volume.type);
    cell(row, bytes(volume.size), 'number');
    cell(row, bytes(volume.free), 'number');
    const used = cell(row, '');
    const meter = document.createElement('meter');
    meter.value = volume.size ? (volume.size - volume.free) / volume.size : 0;
    meter.title = `${Math.round(meter.value * 100)} % used`;
    used.append(meter);
  }
}

// ---- forms with field errors ----

function clearFieldErrors(form) {
  for (const note of form.querySelectorAll('.field-error')) note.textContent = '';
  for (const field of form.querySelectorAll('[aria-invalid]')) field.removeAttribute('aria-invalid');
}

function showFieldErrors(form, errors, prefix) {
  for (const [name, text] of Object.entries(errors || {})) {
    const note = $(`error-${prefix}${name}`);
    if (note) note.textContent = `Must be ${text}.`;
    const field = form.elements[name];
    if (field) field.setAttribute('aria-invalid', 'true');
  }
}

async function submitForm(form, program, api, prefix, message) {
  clearFieldErrors(form);
  const values = Object.fromEntries(new FormData(form));
  const envelope = await sessionCall(program, api, 'set', values, true);
  if (!envelope) return null;
  if (!envelope.success) {
    showFieldErrors(form, envelope.error.errors, prefix);
    say(message, errorText(envelope.error), 'error');
    return null;
  }
  say(message, 'Saved.', 'ok');
  return envelope.data;
}

async function loadSettings() {
  const envelope = await sessionCall('settings', 'Demo.Settings', 'get');
  if (!envelope) return;
  if (!envelope.success) return say($('settings-message'), errorText(envelope.error), 'error');
  const settings = envelope.data;
  $('settings-title-input').value = settings.title;
  $('settings-theme').value = settings.theme;
  $('settings-refresh').value = settings.refresh_seconds;
  clearInterval(refreshTimer);
  refreshTimer = setInterval(loadSystem, settings.refresh_seconds * 1000);
}

async function loadPreferences() {
  const envelope = await sessionCall('preferences', 'Demo.Preferences', 'get');
  if (!envelope) return;
  if (!envelope.success) return say($('preferences-message'), errorText(envelope.error), 'error');
  $('preferences-theme').value = envelope.data.theme;
  $('preferences-language').value = envelope.data.language;
  applyPreferences(envelope.data);
}

// ---- files ----

const UPLOAD_REASONS = {
  'too large': 'it is larger than the server accepts',
  'incomplete': 'it arrived incomplete',
  'malformed': 'the browser sent it in a form the server cannot read',
  'exists': 'a file of that name is already there',
  'not stored': 'the server could not store it',
};

async function loadFiles() {
  const envelope = await sessionCall('files', 'Demo.Files', 'list');
  if (!envelope) return;
  if (!envelope.success) return say($('upload-message'), errorText(envelope.error), 'error');
  const body = $('files-list').tBodies[0];
  body.replaceChildren();
  for (const file of envelope.data.files) {
    const row = body.insertRow();
    cell(row, file.name);
    cell(row, bytes(file.size), 'number');
  }
}

// XMLHttpRequest, not fetch: only it reports how much of a body was sent.
function upload(files, onProgress) {
  const form = new FormData();
  for (const [name, value] of Object.entries({api: 'Demo.Files', method: 'upload', version: '1'}))
    form.append(name, value);
  for (const file of files) form.append('file', file, file.name);
  return new Promise((resolve) => {
    const request = new XMLHttpRequest();
    request.open('POST', '/api/files');
    request.setRequestHeader('X-Mero-Token', token);
    request.upload.addEventListener('progress', (event) => {
      if (event.lengthComputable) onProgress(event.loaded / event.total);
    });
    request.addEventListener('load', () => {
      if (request.status !== 200) return resolve({success: false, error: {code: -request.status}});
      try {
        resolve(JSON.parse(request.responseText));
      } catch (failure) {
        resolve({success: false, error: {code: -request.status}});
      }
    });
    request.addEventListener('error', () => resolve({success: false, error: {code: 0}}));
    request.send(form);
  });
}

// ---- wiring ----

$('login-form').addEventListener('submit', async (event) => {
  event.preventDefault();
  const user = $('login-user').value.trim(), password = $('login-password').value;
  if (!user || !password) return say($('login-message'), errorText({code: 400}), 'error');
  $('login-submit').disabled = true;
  say($('login-message'), 'Logging in…');
  const envelope = await call('auth', 'Demo.Auth', 'login', {user, password}, true);
  $('login-submit').disabled = false;
  if (!envelope.success) {
    $('login-password').value = '';
    return say($('login-message'), errorText(envelope.error), 'error');
  }
  await showDashboard(envelope.data);
});

$('logout').addEventListener('click', async () => {
  await call('auth', 'Demo.Auth', 'logout', {}, true);
  showLogin('You have logged out.', 'ok');
});

$('settings-form').addEventListener('submit', async (event) => {
  event.preventDefault();
  const saved = await submitForm(event.target, 'settings', 'Demo.Settings', '', $('settings-message'));
  if (saved) {
    clearInterval(refreshTimer);
    refreshTimer = setInterval(loadSystem, saved.refresh_seconds * 1000);
  }
});

$('preferences-form').addEventListener('submit', async (event) => {
  event.preventDefault();
  const saved = await submitForm(event.target, 'preferences', 'Demo.Preferences', 'pref-',
                                 $('preferences-message'));
  if (saved) applyPreferences(saved);
});

$('upload-form').addEventListener('submit', async (event) => {
  event.preventDefault();
  const files = $('upload-file').files;
  if (!files.length) return say($('upload-message'), errorText({code: 131}), 'error');
  const progress = $('upload-progress');
  progress.hidden = false;
  progress.value = 0;
  $('upload-submit').disabled = true;
  say($('upload-message'), 'Uploading…');
  const envelope = await upload(files, (share) => { progress.value = Math.round(share * 100); });
  $('upload-submit').disabled = false;
  const code = envelope.error && envelope.error.code;
  if (!envelope.success && SESSION_LOST.has(code)) {
    return showLogin('Your session has ended. Please log in again.', 'error');
  }
  if (!envelope.success) {
    const why = envelope.error.errors && UPLOAD_REASONS[envelope.error.errors.reason];
    say($('upload-message'), why ? `The upload was refused: ${why}.` : errorText(envelope.error), 'error');
  } else {
    progress.value = 100;
    const names = envelope.data.files.map((file) => file.name).join(', ');
    say($('upload-message'), `Uploaded ${names}.`, 'ok');
    $('upload-file').value = '';
  }
  await loadFiles();
});

// A reload keeps the session: the cookie is the browser's, and whoami gives
// the token back.
(async () => {
  const envelope = await call('auth', 'Demo.Auth', 'whoami');
  if (envelope.success) return showDashboard(envelope.data);
  showLogin(envelope.error && envelope.error.code === 105 ? '' : errorText(envelope.error),
            'error');
})();
