// Whitelist and exceptions: each list is edited as text and saved whole.
'use strict';

(() => {
  const {byId, splitList, message, reportError, get, post} = KX;

  async function load() {
    try {
      const data = await get('/api/lists');
      byId('wl-users').value = data.whitelist.users.join('\n');
      byId('wl-groups').value = data.whitelist.groups.join('\n');
      byId('ex-resources').value = data.exceptions.join('\n');
    } catch (e) {
      reportError(e);
    }
  }

  function onSubmit(formId, path, body, done) {
    byId(formId).addEventListener('submit', async (event) => {
      event.preventDefault();
      try {
        await post(path, body());
        message(done, false);
        await load();
      } catch (e) {
        reportError(e);
      }
    });
  }

  function start() {
    onSubmit('wl-form', '/api/whitelist', () => ({
      users: splitList(byId('wl-users').value),
      groups: splitList(byId('wl-groups').value),
    }), 'Whitelist saved.');
    onSubmit('ex-form', '/api/exceptions', () => ({
      resources: splitList(byId('ex-resources').value),
    }), 'Exceptions saved.');
    load();
  }

  document.addEventListener('DOMContentLoaded', start);
})();
