// The journal: filters (local date and time converted to epoch seconds),
// one page of rows at a time, the total, a CSV link with the same filters
// and a chart of denials over the chosen span.
'use strict';

(() => {
  const {el, byId, clear, setText, reportError, get, localToEpoch, formatTime} = KX;
  const kPerPage = 50;
  let page = 1;
  let pages = 1;

  const kEventWords = {exec: 'program started', library: 'library loaded', file: 'file opened'};

  function filters() {
    const params = new URLSearchParams();
    const add = (name, value) => {
      if (value !== '') params.set(name, value);
    };
    add('since', localToEpoch(byId('j-since').value));
    add('until', localToEpoch(byId('j-until').value));
    add('event', byId('j-event').value);
    add('outcome', byId('j-outcome').value);
    add('user', byId('j-user').value.trim());
    add('group', byId('j-group').value.trim());
    add('program', byId('j-program').value.trim());
    return params;
  }

  function renderRows(rows) {
    const body = byId('j-table').tBodies[0];
    clear(body);
    if (rows.length === 0) {
      body.appendChild(el('tr', {}, el('td', {colSpan: 7, className: 'muted'},
                                       'No events match these filters.')));
      return;
    }
    rows.forEach((r) => {
      body.appendChild(el('tr', {className: r.outcome, dataset: {id: String(r.id)}}, [
        el('td', {className: 'time'}, formatTime(r.time)),
        el('td', {}, kEventWords[r.event] || r.event),
        el('td', {}, el('span', {className: `badge ${r.outcome}`}, r.outcome)),
        el('td', {className: 'path j-program-cell'}, r.program),
        el('td', {className: 'path'}, r.object),
        el('td', {}, r.user),
        el('td', {}, r.group),
      ]));
    });
  }

  async function load() {
    const params = filters();
    byId('j-csv').href = `/api/journal.csv?${params}`;
    const chartParams = new URLSearchParams(params);
    params.set('page', String(page));
    params.set('per_page', String(kPerPage));
    try {
      const data = await get(`/api/journal?${params}`);
      pages = Math.max(1, Math.ceil(data.total / data.per_page));
      if (data.journal === 'missing') {
        setText('j-total', 'There is no journal yet.');
      } else {
        setText('j-total', `${data.total} event${data.total === 1 ? '' : 's'}`);
      }
      setText('j-page', `Page ${data.page} of ${pages}`);
      byId('j-prev').disabled = data.page <= 1;
      byId('j-next').disabled = data.page >= pages;
      renderRows(data.rows);
    } catch (e) {
      reportError(e);
      return;
    }
    chartParams.delete('outcome');
    chartParams.set('buckets', '48');
    try {
      KXChart.draw(byId('j-chart'), await get(`/api/journal/chart?${chartParams}`));
    } catch (e) {
      reportError(e);
    }
  }

  function start() {
    byId('j-form').addEventListener('submit', (event) => {
      event.preventDefault();
      page = 1;
      load();
    });
    byId('j-prev').addEventListener('click', () => {
      page = Math.max(1, page - 1);
      load();
    });
    byId('j-next').addEventListener('click', () => {
      page = Math.min(pages, page + 1);
      load();
    });
    load();
  }

  document.addEventListener('DOMContentLoaded', start);
})();
