// The Transaction Manager page: one HTML document with its style and script, served at "/".
// It reads the store through /manager/state, runs controls through /manager/control, and
// follows the ledger through the server-sent events of /manager/events. Nothing is fetched
// from anywhere else, so it works offline.
#include "appstore/server/manager_page.h"

namespace appstore::server {

const char* managerPage() {
  return R"page(<!doctype html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>Transaction Manager</title>
<style>
:root { --line: #d0d4da; --muted: #5b6470; --bad: #b3261e; --good: #1e7a3c; --accent: #0b57d0; }
* { box-sizing: border-box; }
body { font: 15px/1.4 system-ui, sans-serif; margin: 0; color: #1b1f24; background: #f6f7f9; }
header { padding: 12px 16px; background: #fff; border-bottom: 1px solid var(--line);
         display: flex; flex-wrap: wrap; gap: 8px 24px; align-items: baseline; }
header h1 { font-size: 18px; margin: 0; }
main { padding: 12px 16px; display: grid; gap: 16px; }
section { background: #fff; border: 1px solid var(--line); border-radius: 8px; padding: 12px; min-width: 0; }
section h2 { font-size: 16px; margin: 0 0 8px; }
.scroll { overflow-x: auto; }
table { border-collapse: collapse; width: 100%; }
th, td { text-align: left; padding: 4px 8px; border-bottom: 1px solid var(--line); vertical-align: top;
         white-space: nowrap; }
th { font-weight: 600; color: var(--muted); font-size: 13px; }
form, .controls { display: inline-flex; flex-wrap: wrap; gap: 4px; align-items: center; margin: 2px 0; }
td form { flex-wrap: nowrap; }
small.order { display: block; font-family: ui-monospace, monospace; color: var(--muted); }
label { color: var(--muted); font-size: 13px; }
input, select, button { font: inherit; font-size: 14px; padding: 2px 6px; }
input[type=number] { width: 6em; }
button { border: 1px solid var(--accent); color: var(--accent); background: #fff; border-radius: 4px;
         cursor: pointer; }
button:focus-visible, input:focus-visible, select:focus-visible { outline: 2px solid var(--accent); }
.error { color: var(--bad); font-size: 13px; white-space: normal; }
.ok { color: var(--good); }
.muted { color: var(--muted); font-size: 13px; }
.settings { display: flex; flex-wrap: wrap; gap: 8px 20px; }
@media (min-width: 1100px) { main { grid-template-columns: 1fr 1fr; } .wide { grid-column: 1 / -1; } }
</style>
</head>
<body>
<header>
  <h1>Transaction Manager</h1>
  <span>Store clock: <strong id="clock">…</strong> <span id="offset" class="muted"></span></span>
  <span class="muted" id="live" aria-live="polite">connecting…</span>
</header>
<main>
<section aria-labelledby="settings-title" class="wide">
  <h2 id="settings-title">Store</h2>
  <div class="settings" id="settings"></div>
  <form id="advance" aria-label="Advance time">
    <label for="advance-amount">Advance time by</label>
    <input id="advance-amount" type="number" min="0" step="any" value="1" required>
    <select id="advance-unit" aria-label="Unit">
      <option value="60">minutes</option><option value="3600">hours</option>
      <option value="86400" selected>days</option>
    </select>
    <button type="submit">Advance</button>
    <span class="error" role="alert"></span>
  </form>
  <div class="controls">
    <button type="button" data-control="clearTransactions" data-confirm="Delete every transaction?">Clear all transactions</button>
    <span class="error" role="alert"></span>
  </div>
</section>
<section aria-labelledby="catalogue-title">
  <h2 id="catalogue-title">Catalogue</h2>
  <div class="scroll"><table id="catalogue"></table></div>
</section>
<section aria-labelledby="subscriptions-title">
  <h2 id="subscriptions-title">Subscriptions</h2>
  <div class="scroll"><table id="subscriptions"></table></div>
</section>
<section aria-labelledby="transactions-title" class="wide">
  <h2 id="transactions-title">Transactions</h2>
  <div class="scroll"><table id="transactions"></table></div>
</section>
<section aria-labelledby="notifications-title" class="wide">
  <h2 id="notifications-title">Server notifications</h2>
  <p class="muted" id="notifications-url"></p>
  <div class="scroll"><table id="notifications"></table></div>
</section>
</main>
<script>
'use strict';
const statusNames = {1: 'subscribed', 2: 'expired', 3: 'billing retry', 4: 'grace period', 5: 'revoked'};
const timeRates = [[0, 'real time'], [10, 'monthly renewal every hour'], [11, 'monthly every 30 minutes'],
  [12, 'monthly every 15 minutes'], [13, 'monthly every 5 minutes'], [15, 'monthly every 30 seconds'],
  [1000, 'one renewal every 15 minutes'], [1001, 'every 5 minutes'], [1002, 'every minute'],
  [1003, 'every 30 seconds'], [1004, 'every 10 seconds'], [1005, 'every 2 seconds'],
  [1, 'a day a second (1)'], [2, 'a day a second (2)'], [3, 'a day a second (3)'],
  [4, 'a day a second (4)'], [5, 'a day a second (5)'], [6, 'a day a second (6)']];
let state = null;
let clockBase = null;  // [store clock ms, performance.now() when read]

function payloadOf(jws) {
  try {
    const part = jws.split('.')[1].replace(/-/g, '+').replace(/_/g, '/');
    const text = atob(part + '='.repeat((4 - part.length % 4) % 4));
    return JSON.parse(new TextDecoder().decode(Uint8Array.from(text, (c) => c.charCodeAt(0))));
  } catch (e) { return {}; }
}
function when(ms) { return ms === undefined || ms === null ? '' : new Date(ms).toLocaleString(); }
function el(tag, attributes, ...children) {
  const node = document.createElement(tag);
  for (const [key, value] of Object.entries(attributes || {})) {
    if (key.startsWith('on')) node.addEventListener(key.slice(2), value);
    else if (value !== undefined && value !== null && value !== false) node.setAttribute(key, value === true ? '' : value);
  }
  for (const child of children.flat()) {
    if (child !== undefined && child !== null) node.append(child instanceof Node ? child : String(child));
  }
  return node;
}
function errorBeside(node) {
  let box = node.querySelector(':scope > .error');
  if (!box) { box = el('span', {class: 'error', role: 'alert'}); node.append(box); }
  return box;
}

// Runs a control; its error is shown, in words, next to what ran it.
async function run(control, args, place) {
  const box = place ? errorBeside(place) : null;
  if (box) box.textContent = '';
  try {
    const response = await fetch('/manager/control', {method: 'POST', headers: {'Content-Type': 'application/json'},
      body: JSON.stringify({control, ...args})});
    const answer = await response.json();
    if (!response.ok || answer.error) throw new Error(answer.error || ('HTTP ' + response.status));
    await refresh();
    return answer;
  } catch (error) {
    if (box) box.textContent = error.message;
    return null;
  }
}
function button(label, control, args, confirmText) {
  return el('button', {type: 'button', onclick: (event) => {
    if (confirmText && !confirm(confirmText)) return;
    run(control, args, event.target.closest('td, .controls, form'));
  }}, label);
}

function renderSettings(store) {
  const box = document.getElementById('settings');
  box.replaceChildren();
  const toggle = (label, control, value) => {
    const id = 'setting-' + control;
    const wrap = el('span', {class: 'controls'});
    wrap.append(el('input', {type: 'checkbox', id, checked: value,
      onchange: (event) => run(control, {value: event.target.checked}, wrap)}), el('label', {for: id}, label));
    return wrap;
  };
  const text = (label, control, value) => {
    const id = 'setting-' + control;
    const form = el('form', {onsubmit: (event) => { event.preventDefault();
      run(control, {value: form.querySelector('input').value}, form); }});
    form.append(el('label', {for: id}, label), el('input', {id, value, size: 6}), el('button', {type: 'submit'}, 'Set'));
    return form;
  };
  const rate = el('form', {class: 'controls'});
  const select = el('select', {id: 'setting-timeRate', onchange: () => run('timeRate', {value: Number(select.value)}, rate)},
    timeRates.map(([value, name]) => el('option', {value, selected: value === store.timeRate}, name)));
  rate.append(el('label', {for: 'setting-timeRate'}, 'Time rate'), select);
  box.append(text('Storefront', 'storefront', store.storefront), text('Locale', 'locale', store.locale), rate,
    toggle('Ask to buy', 'askToBuyEnabled', store.askToBuy),
    toggle('Interrupted purchases', 'interruptedPurchasesEnabled', store.interruptedPurchases),
    toggle('Billing issue on renewal', 'shouldEnterBillingRetryOnRenewal', store.billingRetryOnRenewal),
    toggle('Billing grace period', 'billingGracePeriodIsEnabled', store.gracePeriod),
    el('span', {class: 'muted'}, store.environment + ' · ' + store.bundleId));
}

function renderCatalogue(products) {
  const table = document.getElementById('catalogue');
  table.replaceChildren(el('tr', {}, ['Product', 'Type', 'Price', 'Offers', ''].map((h) => el('th', {scope: 'col'}, h))));
  for (const p of products) {
    const offers = p.offers.map((o) => o.kind + (o.id ? ' ' + o.id : '') + ' ' + o.price + ' ' + o.period).join(', ');
    const actions = el('td', {}, button('Buy', 'buyProduct', {productID: p.id}));
    if (p.familyShareable) actions.append(' ', button('Family share', 'shareWithFamily', {productID: p.id}));
    table.append(el('tr', {}, el('td', {}, p.id), el('td', {}, p.type + (p.group ? ' · group ' + p.group : '')),
      el('td', {}, p.price), el('td', {class: 'muted'}, offers), actions));
  }
}

function renderSubscriptions(subscriptions, transactions) {
  const table = document.getElementById('subscriptions');
  table.replaceChildren(el('tr', {}, ['Group', 'State', 'Renewal', 'Auto-renew', 'Price increase', ''].map((h) => el('th', {scope: 'col'}, h))));
  for (const s of subscriptions) {
    const info = payloadOf(s.renewalInfo);
    const id = s.transactionId;
    // The family organizer manages a shared subscription: its renewal and price are not this account's.
    const family = transactions.some((t) => t.id === id && t.ownership === 'FAMILY_SHARED');
    const actions = el('td', {});
    if (family) {
      actions.append('shared by the family organizer');
    } else {
      actions.append(button(info.autoRenewStatus ? 'Turn auto-renew off' : 'Turn auto-renew on',
        info.autoRenewStatus ? 'disableAutoRenewForTransaction' : 'enableAutoRenewForTransaction', {identifier: id}));
    }
    if (s.status === 1 || s.status === 4) {
      actions.append(' ', button('Expire', 'expireSubscription', {productID: info.productId}));
    }
    actions.append(' ', button('Renew now', 'forceRenewalOfSubscription', {productID: info.productId}));
    if (s.status === 3 || s.status === 4) actions.append(' ', button('Resolve billing issue', 'resolveIssueForTransaction', {identifier: id}));
    if (!family && info.priceIncreaseStatus === 0) {
      actions.append(' ', button('Consent', 'consentToPriceIncrease', {identifier: id}),
        ' ', button('Decline', 'declinePriceIncrease', {identifier: id}));
    } else if (!family) {
      const form = el('form', {onsubmit: (event) => { event.preventDefault();
        run('requestPriceIncreaseConsentForTransaction', {identifier: id, price: form.querySelector('input').value,
          consentRequired: form.querySelector('[type=checkbox]').checked}, form); }});
      form.append(el('label', {for: 'increase-' + id}, 'New price'), el('input', {id: 'increase-' + id, size: 5, required: true}),
        el('input', {type: 'checkbox', id: 'consent-' + id, checked: true}), el('label', {for: 'consent-' + id}, 'needs consent'),
        el('button', {type: 'submit'}, 'Raise price'));
      actions.append(form);
    }
    const renewal = info.isInBillingRetryPeriod ? 'billing retry' + (info.gracePeriodExpiresDate ? ', grace until ' + when(info.gracePeriodExpiresDate) : '')
                                               : when(info.renewalDate);
    const increase = info.priceIncreaseStatus === undefined ? '' : (info.priceIncreaseStatus ? 'accepted ' : 'asked ') + (info.renewalPrice / 1000) + ' ' + (info.currency || '');
    table.append(el('tr', {}, el('td', {}, s.group), el('td', {}, statusNames[s.status] || s.status),
      el('td', {}, renewal), el('td', {}, (info.autoRenewStatus ? 'on' : 'off') + (info.autoRenewProductId !== info.productId ? ' → ' + info.autoRenewProductId : '')),
      el('td', {}, increase), actions));
  }
}

function renderTransactions(transactions, subscriptions) {
  const renewalOf = {};
  for (const s of subscriptions) renewalOf[s.transactionId] = statusNames[s.status];
  const table = document.getElementById('transactions');
  table.replaceChildren(el('tr', {}, ['Id', 'Original', 'Product', 'State', 'Purchased', 'Expires', 'Price', 'Offer', 'Flags', ''].map((h) => el('th', {scope: 'col'}, h))));
  for (const t of [...transactions].reverse()) {
    const p = t.jws ? payloadOf(t.jws) : {};
    const flags = [t.finished ? 'finished' : 'unfinished', t.revoked ? 'revoked' : '', t.upgraded ? 'upgraded' : '',
      t.ownership === 'FAMILY_SHARED' ? 'family shared' : '', renewalOf[t.id] || ''].filter(Boolean).join(', ');
    const actions = el('td', {});
    if (t.state === 'pending ask-to-buy') {
      actions.append(button('Approve', 'approveAskToBuyTransaction', {identifier: t.id}), ' ',
        button('Decline', 'declineAskToBuyTransaction', {identifier: t.id}));
    }
    if (t.state === 'interrupted') actions.append(button('Resolve', 'resolveIssueForTransaction', {identifier: t.id}));
    if (t.state === 'purchased' && t.ownership === 'FAMILY_SHARED' && !t.revoked) {
      actions.append(button('Revoke family access', 'revokeFamilySharing', {identifier: t.id}));
    } else if (t.state === 'purchased' && !t.revoked) {
      const form = el('form', {onsubmit: (event) => { event.preventDefault();
        run('refundTransaction', {identifier: t.id, reason: form.querySelector('select').value}, form); }});
      form.append(el('select', {'aria-label': 'Refund reason for ' + t.id}, el('option', {value: 'other'}, 'other'),
        el('option', {value: 'developerIssue'}, 'developer issue')), el('button', {type: 'submit'}, 'Refund'));
      actions.append(form);
    } else if (t.revoked && t.ownership !== 'FAMILY_SHARED') {
      actions.append(button('Reverse refund', 'reverseRefund', {identifier: t.id}));
    }
    actions.append(' ', button('Delete', 'deleteTransaction', {identifier: t.id}, 'Delete transaction ' + t.id + '?'));
    const price = p.price === undefined ? '' : (p.price / 1000) + ' ' + (p.currency || '');
    const offer = p.offerType ? ['', 'introductory', 'promotional', 'offer code', 'win-back'][p.offerType] + (p.offerIdentifier ? ' ' + p.offerIdentifier : '') : '';
    table.append(el('tr', {'data-transaction': t.id}, el('td', {}, t.id, t.orderId ? el('small', {class: 'order'}, ' order ' + t.orderId) : ''), el('td', {}, t.originalId ?? ''), el('td', {}, t.productId),
      el('td', {}, t.state), el('td', {}, when(t.purchaseDate)), el('td', {}, when(t.expiresDate)), el('td', {}, price),
      el('td', {}, offer), el('td', {class: 'flags'}, flags), actions));
  }
}

function renderNotifications(notifications, url) {
  document.getElementById('notifications-url').textContent = url ? 'Sent to ' + url : 'No notifications URL: none are made.';
  const table = document.getElementById('notifications');
  table.replaceChildren(el('tr', {}, ['Made', 'Type', 'Attempts', 'Next attempt'].map((h) => el('th', {scope: 'col'}, h))));
  for (const n of [...notifications].reverse()) {
    const attempts = n.attempts.map((a) => when(a.date) + ' ' + a.result).join('; ');
    table.append(el('tr', {}, el('td', {}, when(n.created)), el('td', {}, n.type + (n.subtype ? ' · ' + n.subtype : '')),
      el('td', {class: 'muted'}, attempts || 'not yet'), el('td', {}, n.nextAttempt ? when(n.nextAttempt) : '')));
  }
}

function tick() {
  if (!clockBase) return;
  document.getElementById('clock').textContent = when(clockBase[0] + (performance.now() - clockBase[1]));
}

async function refresh() {
  const response = await fetch('/manager/state');
  if (!response.ok) return;
  state = await response.json();
  clockBase = [state.store.now, performance.now()];
  const offset = state.store.offsetMs;
  const days = Math.floor(Math.abs(offset) / 86400000), hours = (Math.abs(offset) % 86400000) / 3600000;
  document.getElementById('offset').textContent = Math.abs(offset) < 1000 ? '(system time)'
    : '(system time ' + (offset > 0 ? '+ ' : '- ') + (days ? days + ' d ' : '') + hours.toFixed(1) + ' h)';
  tick();
  renderSettings(state.store);
  renderCatalogue(state.products);
  renderSubscriptions(state.subscriptions, state.transactions);
  renderTransactions(state.transactions, state.subscriptions);
  renderNotifications(state.notifications, state.store.notificationsURL);
}

document.getElementById('advance').addEventListener('submit', (event) => {
  event.preventDefault();
  const form = event.target;
  const seconds = Number(document.getElementById('advance-amount').value) * Number(document.getElementById('advance-unit').value);
  run('advanceTime', {seconds}, form);
});
for (const node of document.querySelectorAll('[data-control]')) {
  node.addEventListener('click', () => {
    if (node.dataset.confirm && !confirm(node.dataset.confirm)) return;
    run(node.dataset.control, {}, node.closest('.controls'));
  });
}
setInterval(tick, 1000);

const live = document.getElementById('live');
const events = new EventSource('/manager/events');
events.addEventListener('changed', () => refresh());
events.onopen = () => { live.textContent = 'live'; refresh(); };
events.onerror = () => { live.textContent = 'reconnecting…'; };
refresh();
</script>
</body>
</html>
)page";
}

}  // namespace appstore::server
