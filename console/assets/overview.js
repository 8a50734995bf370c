// The overview: state at a glance, refreshed with every poll.
'use strict';

(() => {
  function confirmationText(confirmation) {
    if (!confirmation) return 'Unknown';
    if (confirmation.description) return confirmation.description;
    return `State ${confirmation.state}`;
  }

  function render(o) {
    KX.setText('ov-state', KX.stateWord(o.state));
    KX.setText('ov-mode', KX.modeWord(o.mode));
    KX.setText('ov-confirmation', confirmationText(o.confirmation));
    KX.setText('ov-rules', `${o.rules} (${o.system_rules} system)`);
    KX.setText('ov-denials-hour', String(o.denials_hour));
    KX.setText('ov-denials-day', String(o.denials_day));
    const engine = o.engine || {};
    KX.setText('ov-engine', (engine.running ? 'Running' : 'Not running') +
                                (engine.detail ? ` (${engine.detail})` : ''));
  }

  async function loadChart() {
    const now = Math.floor(Date.now() / 1000);
    try {
      const data = await KX.get(
          `/api/journal/chart?since=${now - 86400}&until=${now}&buckets=24&outcome=denied`);
      KXChart.draw(KX.byId('ov-chart'), data);
    } catch (e) {
      if (e.status !== 503) KX.reportError(e);
    }
  }

  KX.onPoll(render);
  document.addEventListener('DOMContentLoaded', loadChart);
})();
