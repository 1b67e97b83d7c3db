// The visitor's page of a sharing link: the link id comes after '#' in the
// address (so it never reaches a server log), goes to the API in the
// X-Mero-Sharing header, and into download addresses as _sharing_id
// (the servers' access logs leave query strings out).
'use strict';

const linkId = decodeURIComponent(location.hash.slice(1));
const api = '../api/share';
const reasons = {
  122: 'This link has expired.', 123: 'This link was disabled by its owner.',
  124: 'This link has been used as often as it may be.', 126: 'There is no such link.',
  127: 'This link does not cover that.', 429: 'Too many wrong passwords; try again later.',
  401: 'Wrong password.'
};
let root = null;

function say(text) { document.getElementById('page-message').textContent = text; }

async function call(params, options = {}) {
  const response = await fetch(api + (options.body ? '' : '?' + new URLSearchParams(params)), {
    method: options.body ? 'POST' : 'GET', body: options.body,
    headers: { 'X-Mero-Sharing': linkId }, credentials: 'same-origin'
  });
  return response.json();
}

function show(viewId) {
  for (const id of ['password-view', 'files-view']) document.getElementById(id).hidden = id !== viewId;
}

async function list(path) {
  const answer = await call({ api: 'Demo.Share', method: 'list', version: 1, path });
  if (!answer.success) {
    const code = answer.error.code;
    if (code === 125) return show('password-view');
    show(null);
    return say(reasons[code] || 'The link cannot be opened now (error ' + code + ').');
  }
  say('');
  show('files-view');
  document.getElementById('folder').textContent = answer.data.path;
  const rows = document.getElementById('items');
  rows.replaceChildren();
  const entries = answer.data.items.slice();
  if (path !== root) entries.unshift({ name: '..', type: 'folder', up: true });
  for (const item of entries) {
    const row = rows.insertRow();
    const link = document.createElement('a');
    link.textContent = item.name + (item.type === 'folder' ? '/' : '');
    const target = item.up ? path.slice(0, path.lastIndexOf('/')) || '/' : path.replace(/\/$/, '') + '/' + item.name;
    if (item.type === 'folder') {
      link.href = '#' + encodeURIComponent(linkId);
      link.addEventListener('click', (event) => { event.preventDefault(); list(target); });
    } else {
      link.href = api + '?' + new URLSearchParams({ api: 'Demo.Share', method: 'download', version: 1,
                                                   path: target, _sharing_id: linkId });
    }
    row.insertCell().append(link);
    const size = row.insertCell();
    size.className = 'number';
    size.textContent = item.size === undefined ? '' : item.size;
  }
}

document.getElementById('password-form').addEventListener('submit', async (event) => {
  event.preventDefault();
  const body = new URLSearchParams({ api: 'Demo.ShareAuth', method: 'unlock', version: 1,
                                     password: document.getElementById('password').value });
  const answer = await call(null, { body });
  document.getElementById('password-message').textContent =
    answer.success ? '' : reasons[answer.error.code] || 'Error ' + answer.error.code;
  if (answer.success) open();
});

// Where the link points: a folder is listed, a file offered for download.
async function open() {
  const answer = await call({ api: 'Demo.ShareLink', method: 'get', version: 1 });
  if (!answer.success) {
    if (answer.error.code === 125) return show('password-view');
    show(null);
    return say(reasons[answer.error.code] || 'The link cannot be opened now.');
  }
  root = answer.data.item;
  const listed = await call({ api: 'Demo.Share', method: 'list', version: 1, path: root });
  if (listed.success || listed.error.code !== 404) return list(root);
  show(null);
  const link = document.createElement('a');
  link.textContent = root.slice(root.lastIndexOf('/') + 1);
  link.href = api + '?' + new URLSearchParams({ api: 'Demo.Share', method: 'download', version: 1,
                                               path: root, _sharing_id: linkId });
  document.getElementById('page-message').replaceChildren('Shared file: ', link);
}

if (!linkId) say('This page opens sharing links; the link it was given has no id.');
else open();
