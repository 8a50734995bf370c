// The rules page: list, search, view, add, edit, switch on/off, rename,
// remove, export. System rules are shown but cannot be changed here.
'use strict';

(() => {
  const {el, byId, clear, splitList, message, reportError, get, post} = KX;
  const kPerPage = 100;
  // Pages need a stable order, and the service lists rules in its directory's
  // order; numeric so that rule-9 comes before rule-10.
  const kByName = new Intl.Collator('en', {numeric: true});
  let rules = [];
  let page = 1;  // of the rules matching the search
  let shownRule = null;  // name of the rule in #rule-detail

  function matches(rule, needle) {
    if (needle === '') return true;
    const fields = [rule.name, ...rule.users, ...rule.groups, ...rule.resources];
    return fields.some((field) => field.toLowerCase().includes(needle));
  }

  function summary(list, all) {
    if (all) return 'all resources';
    if (list.length === 0) return '—';
    return list.length <= 3 ? list.join(', ') : `${list.slice(0, 3).join(', ')} … (${list.length})`;
  }

  function stateBadge(rule) {
    const badges = [el('span', {className: rule.enabled ? 'badge on' : 'badge off'},
                       rule.enabled ? 'enabled' : 'disabled')];
    if (rule.system) badges.push(' ', el('span', {className: 'badge system'}, 'system'));
    if (rule.extended) badges.push(' ', el('span', {className: 'badge'}, 'extended'));
    return badges;
  }

  function button(className, text, onClick, disabled) {
    const b = el('button', {type: 'button', className, disabled: !!disabled}, text);
    b.addEventListener('click', onClick);
    return b;
  }

  function row(rule) {
    const readOnly = rule.system;
    const remove = button('rule-remove danger', 'Remove', () => {
      // Two clicks: removing a rule can lock people out of their programs.
      if (remove.dataset.armed !== '1') {
        remove.dataset.armed = '1';
        remove.textContent = 'Really remove?';
        return;
      }
      change('/api/rules/remove', {name: rule.name}, `Rule ${rule.name} removed.`);
    }, readOnly);
    return el('tr', {dataset: {rule: rule.name}}, [
      el('td', {className: 'name'}, rule.name),
      el('td', {}, stateBadge(rule)),
      el('td', {}, summary(rule.users, false)),
      el('td', {}, summary(rule.groups, false)),
      el('td', {}, summary(rule.resources, rule.all)),
      el('td', {className: 'actions'}, [
        button('rule-view', 'View', () => showDetail(rule.name)),
        button('rule-toggle', rule.enabled ? 'Disable' : 'Enable',
               () => change('/api/rules/edit', {name: rule.name, enabled: !rule.enabled},
                            `Rule ${rule.name} ${rule.enabled ? 'disabled' : 'enabled'}.`),
               readOnly),
        button('rule-rename', 'Rename', () => showDetail(rule.name, true), readOnly),
        remove,
      ]),
    ]);
  }

  // The rules matching the search; paging and the count work on this list.
  function filtered() {
    const needle = byId('rules-search').value.trim().toLowerCase();
    return rules.filter((rule) => matches(rule, needle));
  }

  // Only one page of rows is in the document: the browser's style and layout
  // of thousands of rows with their buttons costs seconds, while filtering
  // every rule in memory stays instant.
  function renderTable() {
    const shown = filtered();
    const pages = Math.max(1, Math.ceil(shown.length / kPerPage));
    page = Math.min(Math.max(1, page), pages);
    const first = (page - 1) * kPerPage;
    const onPage = shown.slice(first, first + kPerPage);
    const body = byId('rules-table').tBodies[0];
    clear(body);
    const fragment = document.createDocumentFragment();
    onPage.forEach((rule) => fragment.appendChild(row(rule)));
    body.appendChild(fragment);
    const range = onPage.length ? `${first + 1}–${first + onPage.length}` : '0';
    const matching = shown.length === rules.length ? ''
                                                   : ` matching (${rules.length} in all)`;
    KX.setText('rules-count', `Rules ${range} of ${shown.length}${matching}`);
    KX.setText('rules-page', `Page ${page} of ${pages}`);
    byId('rules-prev').disabled = page <= 1;
    byId('rules-next').disabled = page >= pages;
  }

  // Moves to the page holding `name` (a rule just added or renamed), so the
  // change is in view; a rule the search hides leaves the page as it is.
  function turnToRule(name) {
    const index = filtered().findIndex((rule) => rule.name === name);
    if (index >= 0) page = Math.floor(index / kPerPage) + 1;
  }

  function listBlock(title, field, values, rule) {
    const items = values.map((value) => {
      const li = el('li', {}, [el('span', {className: 'value-text'}, value)]);
      if (!rule.system) {
        li.appendChild(button('link rule-drop-entry', 'remove', () => {
          const remove = {users: [], groups: [], resources: []};
          remove[field] = [value];
          change('/api/rules/edit', {name: rule.name, remove},
                 `${value} removed from ${rule.name}.`);
        }));
      }
      return li;
    });
    return el('div', {className: 'detail-list'}, [
      el('h3', {}, `${title} (${values.length})`),
      values.length ? el('ul', {}, items) : el('p', {className: 'muted'}, 'none'),
    ]);
  }

  function formRow(label, input) {
    return [el('label', {htmlFor: input.id}, label), input];
  }

  function editForms(rule, focusRename) {
    const addUsers = el('input', {id: 'rule-edit-users', placeholder: 'users'});
    const addGroups = el('input', {id: 'rule-edit-groups', placeholder: 'groups'});
    const addResources = el('input', {id: 'rule-edit-resources', placeholder: 'resources'});
    const add = el('form', {className: 'grid-form', id: 'rule-edit-form'}, [
      ...formRow('Add users', addUsers), ...formRow('Add groups', addGroups),
      ...formRow('Add resources', addResources),
      el('span'), el('span', {}, el('button', {type: 'submit'}, 'Add to rule')),
    ]);
    add.addEventListener('submit', (event) => {
      event.preventDefault();
      change('/api/rules/edit', {
        name: rule.name,
        add: {users: splitList(addUsers.value), groups: splitList(addGroups.value),
              resources: splitList(addResources.value)},
      }, `Rule ${rule.name} changed.`);
    });

    const newName = el('input', {id: 'rule-new-name', value: rule.name, required: true});
    const rename = el('form', {className: 'grid-form', id: 'rule-rename-form'}, [
      ...formRow('New name', newName),
      el('span'), el('span', {}, el('button', {type: 'submit'}, 'Rename')),
    ]);
    rename.addEventListener('submit', (event) => {
      event.preventDefault();
      const target = newName.value.trim();
      change('/api/rules/edit', {name: rule.name, rename: target},
             `Rule ${rule.name} renamed to ${target}.`, target);
    });

    const file = el('input', {id: 'rule-export-file',
                              value: `/opt/korvex/var/export/${rule.name}.json`});
    const exportForm = el('form', {className: 'grid-form', id: 'rule-export-form'}, [
      ...formRow('Export to file', file),
      el('span'), el('span', {}, el('button', {type: 'submit'}, 'Export')),
    ]);
    exportForm.addEventListener('submit', (event) => {
      event.preventDefault();
      change('/api/rules/export', {name: rule.name, file: file.value.trim()},
             `Rule ${rule.name} exported to ${file.value.trim()}.`, rule.name);
    });

    if (focusRename) window.setTimeout(() => newName.focus(), 0);
    return rule.system ? [exportForm] : [add, rename, exportForm];
  }

  function showDetail(name, focusRename) {
    const panel = byId('rule-detail');
    const rule = rules.find((r) => r.name === name);
    shownRule = rule ? name : null;
    clear(panel);
    if (!rule) {
      panel.hidden = true;
      return;
    }
    panel.appendChild(el('h2', {}, ['Rule ', el('span', {className: 'name'}, rule.name)]));
    panel.appendChild(el('p', {}, stateBadge(rule)));
    if (rule.system) {
      panel.appendChild(el('p', {className: 'muted'},
                           'A system rule: it comes with the installation and is read-only.'));
    }
    panel.appendChild(el('div', {className: 'detail-lists'}, [
      listBlock('Users', 'users', rule.users, rule),
      listBlock('Groups', 'groups', rule.groups, rule),
      rule.all ? el('div', {className: 'detail-list'},
                    [el('h3', {}, 'Resources'), el('p', {}, 'All resources')])
               : listBlock('Resources', 'resources', rule.resources, rule),
    ]));
    editForms(rule, focusRename).forEach((form) => panel.appendChild(form));
    panel.appendChild(button('link', 'Close', () => showDetail(null)));
    panel.hidden = false;
  }

  // showName: a rule whose page is shown afterwards (one just added or renamed).
  async function load(showName) {
    try {
      const data = await get('/api/rules');
      // Marks in the browser's performance timeline, so a slow page can be
      // split into fetching and drawing (bench/console_rules_bench.py).
      performance.mark('kx-rules-fetched');
      rules = data.rules.sort((a, b) => kByName.compare(a.name, b.name));
      if (showName !== undefined) turnToRule(showName);
      renderTable();
      performance.mark('kx-rules-rendered');
      if (shownRule !== null) showDetail(shownRule);
    } catch (e) {
      reportError(e);
    }
  }

  // nextShown: the rule to show in the panel afterwards (a renamed rule's new name).
  async function change(path, body, done, nextShown) {
    try {
      await post(path, body);
      message(done, false);
      if (nextShown !== undefined) shownRule = nextShown;
      await load(nextShown);
    } catch (e) {
      reportError(e);
    }
  }

  function start() {
    // Redrawn once typing pauses: a list of thousands of rules is not
    // rebuilt for every key.
    let pending = 0;
    byId('rules-search').addEventListener('input', () => {
      window.clearTimeout(pending);
      pending = window.setTimeout(() => {
        page = 1;
        renderTable();
      }, 150);
    });
    byId('rules-prev').addEventListener('click', () => {
      page -= 1;
      renderTable();
    });
    byId('rules-next').addEventListener('click', () => {
      page += 1;
      renderTable();
    });
    byId('rule-add-form').addEventListener('submit', async (event) => {
      event.preventDefault();
      const name = byId('rule-name').value.trim();
      const body = {
        name,
        users: splitList(byId('rule-users').value),
        groups: splitList(byId('rule-groups').value),
        resources: splitList(byId('rule-resources').value),
      };
      if (byId('rule-all').checked) body.all = true;
      try {
        await post('/api/rules/add', body);
        message(`Rule ${name} added.`, false);
        byId('rule-add-form').reset();
        await load(name);
      } catch (e) {
        reportError(e);
      }
    });
    load();
  }

  document.addEventListener('DOMContentLoaded', start);
})();
