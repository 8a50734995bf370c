// Shared by every page: talking to the console's JSON API, the banner that
// says when the service is unreachable, messages, and small DOM helpers.
//
// Values from the service (rule names, journal paths, user names) are
// attacker-influenced: they only ever reach the page through textContent
// and createElement, never as markup.
'use strict';

const KX = (() => {
  const kPollSeconds = 3;
  let csrfToken = null;

  class ApiError extends Error {
    constructor(status, code, message) {
      super(message);
      this.status = status;
      this.code = code;
    }
  }

  // el('td', {className: 'x', dataset: {rule: name}}, 'text' | [children])
  function el(tag, props, content) {
    const node = document.createElement(tag);
    for (const [key, value] of Object.entries(props || {})) {
      if (key === 'dataset') {
        Object.assign(node.dataset, value);
      } else {
        node[key] = value;
      }
    }
    append(node, content);
    return node;
  }

  function append(node, content) {
    if (content === undefined || content === null) return;
    if (Array.isArray(content)) {
      content.forEach((child) => append(node, child));
    } else if (content instanceof Node) {
      node.appendChild(content);
    } else {
      node.appendChild(document.createTextNode(String(content)));
    }
  }

  function clear(node) {
    while (node.firstChild) node.removeChild(node.firstChild);
  }

  function byId(id) {
    return document.getElementById(id);
  }

  function setText(id, text) {
    const node = byId(id);
    if (node) node.textContent = text;
  }

  // "a, b\nc" -> ['a', 'b', 'c']
  function splitList(text) {
    return text.split(/[,\n]/).map((s) => s.trim()).filter((s) => s !== '');
  }

  function showServiceStatus(text) {
    const banner = byId('service-status');
    if (!banner) return;
    banner.textContent = text;
    banner.hidden = text === '';
  }

  function message(text, isError) {
    const box = byId('message');
    if (!box) return;
    box.textContent = text;
    box.className = isError ? 'error' : 'ok';
    box.hidden = text === '';
  }

  function reportError(error) {
    message(error.message || String(error), true);
  }

  async function session() {
    if (csrfToken === null) {
      const data = await request('GET', '/api/session');
      csrfToken = data.csrf;
    }
    return csrfToken;
  }

  async function request(method, path, body) {
    const headers = {Accept: 'application/json'};
    const init = {method, headers, credentials: 'same-origin'};
    if (method !== 'GET') {
      headers['X-CSRF-Token'] = await session();
      headers['Content-Type'] = 'application/json';
      init.body = JSON.stringify(body === undefined ? {} : body);
    }
    let response;
    try {
      response = await fetch(path, init);
    } catch (e) {
      showServiceStatus('The console itself is not reachable.');
      throw new ApiError(0, 'network', 'The console is not reachable.');
    }
    let data = null;
    try {
      data = await response.json();
    } catch (e) {
      data = null;
    }
    const text = (data && data.message) || response.statusText;
    if (response.status === 503) {
      showServiceStatus('The service is not reachable. ' + (text || ''));
      throw new ApiError(503, 'service_unreachable', 'The service is not reachable.');
    }
    showServiceStatus('');
    if (response.status === 401) {
      window.location.assign('/welcome');
      throw new ApiError(401, 'not_logged_in', 'The session has ended.');
    }
    if (!response.ok) {
      const code = (data && data.error) || 'error';
      throw new ApiError(response.status, code, text || code);
    }
    return data;
  }

  const get = (path) => request('GET', path);
  const post = (path, body) => request('POST', path, body);

  // datetime-local value (browser's local time) -> epoch seconds, or '' when empty.
  function localToEpoch(value) {
    if (!value) return '';
    const ms = new Date(value).getTime();
    return Number.isNaN(ms) ? '' : String(Math.floor(ms / 1000));
  }

  // epoch seconds -> datetime-local value in the browser's local time.
  function epochToLocal(seconds) {
    const d = new Date(seconds * 1000);
    const pad = (n) => String(n).padStart(2, '0');
    return `${d.getFullYear()}-${pad(d.getMonth() + 1)}-${pad(d.getDate())}` +
           `T${pad(d.getHours())}:${pad(d.getMinutes())}:${pad(d.getSeconds())}`;
  }

  function formatTime(seconds) {
    return new Date(seconds * 1000).toLocaleString();
  }

  function stateWord(state) {
    return Number(state) === 1 ? 'On' : 'Off';
  }

  function modeWord(mode) {
    return Number(mode) === 1 ? 'Hard (denies what no rule allows)'
                              : 'Soft (records, denies nothing)';
  }

  // Every page keeps an eye on the service, so the banner comes and goes
  // even on pages that are only being read.
  const pollListeners = [];
  function onPoll(listener) {
    pollListeners.push(listener);
  }

  async function poll() {
    try {
      const overview = await get('/api/overview');
      pollListeners.forEach((listener) => listener(overview));
    } catch (e) {
      // The banner already says what is wrong.
    }
  }

  const kPages = [
    ['overview', '/', 'Overview'],
    ['rules', '/rules', 'Rules'],
    ['lists', '/lists', 'Whitelist and exceptions'],
    ['control', '/control', 'Control'],
    ['journal', '/journal', 'Journal'],
    ['learning', '/learning', 'Learning'],
  ];

  // The header, menu, banner and message line of every page, made here
  // once rather than copied into each page's HTML.
  function buildChrome() {
    const current = document.body.dataset.page;
    const links = kPages.map(([page, href, title]) => {
      const link = el('a', {id: `nav-${page}`, href}, title);
      if (page === current) link.setAttribute('aria-current', 'page');
      return el('li', {}, link);
    });
    const banner = el('div', {id: 'service-status', className: 'banner', hidden: true});
    banner.setAttribute('role', 'alert');
    const box = el('div', {id: 'message', hidden: true});
    box.setAttribute('role', 'status');
    document.body.prepend(
        el('header', {}, [el('span', {className: 'brand'}, 'kxconsole'),
                          el('nav', {}, el('ul', {}, links)),
                          el('button', {type: 'button', id: 'logout', className: 'link'},
                             'Log out')]),
        banner);
    const main = document.querySelector('main');
    main.prepend(box);
  }

  function start() {
    buildChrome();
    const logout = byId('logout');
    if (logout) {
      logout.addEventListener('click', async () => {
        try {
          await post('/api/logout');
        } catch (e) {
          // Leaving anyway: the session is of no use to this page any more.
        }
        window.location.assign('/welcome');
      });
    }
    poll();
    window.setInterval(poll, kPollSeconds * 1000);
  }

  document.addEventListener('DOMContentLoaded', start);

  return {
    ApiError, el, clear, byId, setText, splitList, message, reportError,
    get, post, localToEpoch, epochToLocal, formatTime, stateWord, modeWord,
    onPoll,
  };
})();
