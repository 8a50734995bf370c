// Whitelist and exceptions: each list is edited as text and saved whole.
'use strict';

(() => {
  const {byId, splitList, message, reportError, get, post} = KX;

  // Returns the error when the lists could not be read, else null.
  async function load() {
    try {
      const data = await get('/api/lists');
      byId('wl-users').value = data.whitelist.users.join('\n');
      byId('wl-groups').value = data.whitelist.groups.join('\n');
      byId('ex-resources').value = data.exceptions.join('\n');
      return null;
    } catch (e) {
      return e;
    }
  }

  function onSubmit(formId, path, body, done) {
    byId(formId).addEventListener('submit', async (event) => {
      event.preventDefault();
      try {
        await post(path, body());
      } catch (e) {
        reportError(e);
        return;
      }
      // Saved, even when reading the lists back fails: say both.
      const failed = await load();
      message(failed ? `${done} Reading the lists back failed: ${failed.message}` : done, false);
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
    load().then((failed) => {
      if (failed) reportError(failed);
    });
  }

  document.addEventListener('DOMContentLoaded', start);
})();
