// Control: state and mode switches, and the hard-mode confirmation as the
// plug-in reports it. Hard mode only takes effect once an administrator
// confirms it, so the page shows which step the request is at.
'use strict';

(() => {
  const {byId, setText, message, reportError, get, post} = KX;

  const kPhaseWords = {
    none: 'No switch to hard mode is pending.',
    requested: 'Hard mode was requested.',
    waiting: 'Hard mode is waiting for an administrator to confirm it.',
    confirmed: 'Hard mode is confirmed.',
  };

  function render(c) {
    setText('ctl-state', KX.stateWord(c.state));
    setText('ctl-mode', KX.modeWord(c.mode));
    const confirmation = c.confirmation || {};
    const phase = confirmation.phase || 'none';
    setText('ctl-phase', kPhaseWords[phase] || `Unknown step: ${phase}`);
    setText('ctl-description', confirmation.description || '');
    for (const item of byId('ctl-phases').children) {
      item.classList.toggle('current', item.dataset.phase === phase);
    }
    byId('ctl-confirm').disabled = !(phase === 'requested' || phase === 'waiting');
    byId('ctl-on').disabled = Number(c.state) === 1;
    byId('ctl-off').disabled = Number(c.state) !== 1;
    byId('ctl-hard').disabled = Number(c.mode) === 1;
    byId('ctl-soft').disabled = Number(c.mode) !== 1;
  }

  async function load() {
    try {
      render(await get('/api/control'));
    } catch (e) {
      reportError(e);
    }
  }

  function action(id, path, body, done) {
    byId(id).addEventListener('click', async () => {
      try {
        await post(path, body);
        message(done, false);
      } catch (e) {
        reportError(e);
      }
      await load();
    });
  }

  function start() {
    action('ctl-on', '/api/control', {state: 1}, 'Control switched on.');
    action('ctl-off', '/api/control', {state: 0}, 'Control switched off.');
    action('ctl-hard', '/api/control', {mode: 1},
           'Hard mode requested: it takes effect once an administrator confirms it.');
    action('ctl-soft', '/api/control', {mode: 0}, 'Switched to soft mode.');
    action('ctl-confirm', '/api/control/confirm', {}, 'Hard mode confirmed.');
    load();
    // The confirmation can also be given elsewhere; follow it.
    KX.onPoll(() => load());
  }

  document.addEventListener('DOMContentLoaded', start);
})();
