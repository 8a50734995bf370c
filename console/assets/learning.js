// Learning: rules proposed from the journal's denials, accepted one by one
// (an ordinary add) or dropped (hidden for this browser session), and the
// what-if report of what hard mode would have denied.
'use strict';

(() => {
  const {el, byId, clear, setText, message, reportError, get, post, localToEpoch,
         epochToLocal} = KX;
  const kDroppedKey = 'kxconsole.dropped-proposals';

  function dropped() {
    try {
      return new Set(JSON.parse(window.sessionStorage.getItem(kDroppedKey) || '[]'));
    } catch (e) {
      return new Set();
    }
  }

  function drop(name) {
    const names = dropped();
    names.add(name);
    window.sessionStorage.setItem(kDroppedKey, JSON.stringify([...names]));
  }

  function span() {
    const params = new URLSearchParams();
    const since = localToEpoch(byId('l-since').value);
    const until = localToEpoch(byId('l-until').value);
    if (since !== '') params.set('since', since);
    if (until !== '') params.set('until', until);
    return params;
  }

  // The tool's notes (programs skipped and why) can run to many lines:
  // folded away under a count.
  function showNotes(text) {
    const notes = (text || '').trim();
    const lines = notes === '' ? 0 : notes.split('\n').length;
    setText('l-messages', notes);
    setText('l-notes-summary', `Notes from the tool (${lines} line${lines === 1 ? '' : 's'})`);
    byId('l-notes').hidden = lines === 0;
  }

  function field(title, values) {
    return el('div', {}, [el('h4', {}, title),
                          el('p', {className: 'path'}, values.length ? values.join(', ') : '—')]);
  }

  function card(p) {
    const accept = el('button', {type: 'button', className: 'l-accept'}, 'Accept');
    const dropButton = el('button', {type: 'button', className: 'l-drop link'}, 'Drop');
    const node = el('article', {className: 'proposal panel', dataset: {proposal: p.name}}, [
      el('h3', {className: 'name'}, p.name),
      el('div', {className: 'detail-lists'}, [field('Users', p.users), field('Groups', p.groups),
                                              field('Resources', p.resources)]),
      el('details', {}, [el('summary', {}, 'Rule document'),
                         el('pre', {className: 'report'}, p.document)]),
      el('p', {}, [accept, ' ', dropButton]),
    ]);
    accept.addEventListener('click', async () => {
      try {
        await post('/api/learning/accept',
                   {name: p.name, users: p.users, groups: p.groups, resources: p.resources});
        message(`Rule ${p.name} added.`, false);
        accept.disabled = true;
        accept.textContent = 'Accepted';
        node.classList.add('accepted');
      } catch (e) {
        reportError(e);
      }
    });
    dropButton.addEventListener('click', () => {
      drop(p.name);
      node.remove();
      message(`Proposal ${p.name} dropped.`, false);
    });
    return node;
  }

  async function propose() {
    const list = byId('l-proposals');
    clear(list);
    list.appendChild(el('p', {className: 'muted'}, 'Reading the journal…'));
    try {
      const data = await get(`/api/learning/proposals?${span()}`);
      const hidden = dropped();
      const shown = data.proposals.filter((p) => !hidden.has(p.name));
      clear(list);
      if (shown.length === 0) {
        list.appendChild(el('p', {className: 'muted'}, 'No rules to propose for this span.'));
      }
      shown.forEach((p) => list.appendChild(card(p)));
      showNotes(data.messages);
    } catch (e) {
      clear(list);
      reportError(e);
    }
  }

  async function whatIf() {
    setText('l-verdict', 'Replaying the journal…');
    setText('l-report', '');
    try {
      const data = await get(`/api/learning/whatif?${span()}`);
      setText('l-verdict', data.would_deny
        ? 'Hard mode would have denied some of these events: read the report before you switch.'
        : 'Hard mode would have denied none of these events.');
      byId('l-verdict').className = data.would_deny ? 'error' : 'ok';
      setText('l-report', data.report || '');
      showNotes(data.messages);
    } catch (e) {
      setText('l-verdict', '');
      reportError(e);
    }
  }

  function start() {
    const now = Math.floor(Date.now() / 1000);
    byId('l-since').value = epochToLocal(now - 7 * 86400);
    byId('l-until').value = epochToLocal(now + 60);
    byId('l-form').addEventListener('submit', (event) => {
      event.preventDefault();
      propose();
    });
    byId('l-whatif').addEventListener('click', whatIf);
  }

  document.addEventListener('DOMContentLoaded', start);
})();
