// Calls the local App Store Server API with Apple's AppStoreServerAPIClient (its base URL set
// to the local server's) and checks what it answers with SignedDataVerifier. Reads
// {url, keyFile, keyId, issuerId, bundleId, trustedRoot (base64 DER), transactionIds,
// endpoints?} from the file named on the command line; prints {results, environment, groups,
// endpoints}: per id, {ok, decoded} or {ok: false, httpStatusCode, apiError, errorMessage};
// then, from Get All Subscription Statuses for the first id, each subscription with its
// transaction and renewal info decoded; then finishes the first id with Finish Transaction.
// With `endpoints` ({anyId, subscriptionId, consumableId, token, massRequestIdentifier}) it
// also calls every other endpoint the local server answers, in this order, and prints what
// each gave, every signed item verified and decoded.
'use strict';
const fs = require('fs');
const {
  AppStoreServerAPIClient, SignedDataVerifier, Environment, GetTransactionHistoryVersion,
  Order, ProductType,
} = require('@apple/app-store-server-library');

const kMaxPages = 10;

function failure(error) {
  return { ok: false, httpStatusCode: error.httpStatusCode ?? null, apiError: error.apiError ?? null,
           errorMessage: error.errorMessage ?? String(error) };
}

// Every page of a history, following the revision tokens; at most kMaxPages requests.
async function allPages(fetchPage, verifier) {
  const decoded = [];
  let revision = null;
  const pages = [];
  for (let i = 0; i < kMaxPages; ++i) {
    const page = await fetchPage(revision);
    pages.push({ size: page.signedTransactions.length, hasMore: page.hasMore,
                 environment: page.environment ?? null, bundleId: page.bundleId ?? null });
    for (const jws of page.signedTransactions) decoded.push(await verifier.verifyAndDecodeTransaction(jws));
    if (!page.hasMore) return { decoded, pages, revision: page.revision };
    revision = page.revision;
  }
  throw new Error('more than ' + kMaxPages + ' pages');
}

async function endpoints(client, verifier, ask) {
  const out = {};
  out.historyV2 = await allPages((revision) => client.getTransactionHistory(ask.anyId, revision, {},
    GetTransactionHistoryVersion.V2), verifier);
  out.historyV2Filtered = await allPages((revision) => client.getTransactionHistory(ask.anyId, revision, {
    sort: Order.DESCENDING, productTypes: [ProductType.CONSUMABLE, ProductType.NON_CONSUMABLE],
    revoked: false,
  }, GetTransactionHistoryVersion.V2), verifier);
  out.historyV1 = await allPages((revision) => client.getTransactionHistory(ask.anyId, revision, {},
    GetTransactionHistoryVersion.V1), verifier);
  out.refunds = await allPages((revision) => client.getRefundHistory(ask.anyId, revision), verifier);
  const app = await client.getAppTransactionInfo(ask.anyId);
  out.appTransaction = await verifier.verifyAndDecodeAppTransaction(app.signedAppTransactionInfo);

  await client.setAppAccountToken(ask.subscriptionId, { appAccountToken: ask.token });
  const statuses = await client.getAllSubscriptionStatuses(ask.subscriptionId);
  const last = statuses.data[0].lastTransactions[0];
  out.afterToken = {
    transaction: await verifier.verifyAndDecodeTransaction(last.signedTransactionInfo),
    renewalInfo: await verifier.verifyAndDecodeRenewalInfo(last.signedRenewalInfo),
  };

  await client.sendConsumptionInformation(ask.consumableId, {
    customerConsented: true, deliveryStatus: 'DELIVERED', sampleContentProvided: false,
    consumptionPercentage: 40000, refundPreference: 'GRANT_PRORATED',
  });
  out.consumptionV2 = 'sent';
  await client.sendConsumptionData(ask.consumableId, {
    customerConsented: true, consumptionStatus: 2, platform: 1, sampleContentProvided: false,
    deliveryStatus: 0, appAccountToken: '', accountTenure: 3, playTime: 2,
    lifetimeDollarsRefunded: 1, lifetimeDollarsPurchased: 3, userStatus: 1,
  });
  out.consumptionV1 = 'sent';
  try {
    await client.sendConsumptionInformation('99999999', {
      customerConsented: false, deliveryStatus: 'DELIVERED', sampleContentProvided: false,
    });
    out.consumptionRefused = { ok: true };
  } catch (error) {
    out.consumptionRefused = failure(error);
  }

  out.extension = await client.extendSubscriptionRenewalDate(ask.subscriptionId, {
    extendByDays: 5, extendReasonCode: 1, requestIdentifier: 'single-1',
  });
  out.mass = await client.extendRenewalDateForAllActiveSubscribers({
    extendByDays: 2, extendReasonCode: 3, requestIdentifier: ask.massRequestIdentifier,
    productId: ask.massProductId, storefrontCountryCodes: ['USA', 'CAN'],
  });
  out.massStatus = await client.getStatusOfSubscriptionRenewalDateExtensions(
    ask.massRequestIdentifier, ask.massProductId);
  try {
    await client.getStatusOfSubscriptionRenewalDateExtensions('unknown', ask.massProductId);
    out.massStatusUnknown = { ok: true };
  } catch (error) {
    out.massStatusUnknown = failure(error);
  }
  out.orders = [];
  for (const orderId of ask.orderIds ?? []) {
    const found = await client.lookUpOrderId(orderId);
    const transactionIds = [];
    for (const jws of found.signedTransactions ?? []) {
      transactionIds.push((await verifier.verifyAndDecodeTransaction(jws)).transactionId);
    }
    out.orders.push({ status: found.status, transactionIds });
  }
  const after = await client.getAllSubscriptionStatuses(ask.subscriptionId);
  out.afterExtensions = await verifier.verifyAndDecodeTransaction(
    after.data[0].lastTransactions[0].signedTransactionInfo);
  return out;
}

async function main() {
  const input = JSON.parse(fs.readFileSync(process.argv[2], 'utf8'));
  const key = fs.readFileSync(input.keyFile, 'utf8');
  const client = new AppStoreServerAPIClient(key, input.keyId, input.issuerId, input.bundleId,
                                             Environment.SANDBOX);
  client.urlBase = input.url;
  const verifier = new SignedDataVerifier([Buffer.from(input.trustedRoot, 'base64')], false,
                                          Environment.SANDBOX, input.bundleId);
  const results = [];
  for (const id of input.transactionIds) {
    try {
      const response = await client.getTransactionInfo(id);
      results.push({ ok: true, decoded: await verifier.verifyAndDecodeTransaction(response.signedTransactionInfo) });
    } catch (error) {
      results.push(failure(error));
    }
  }
  // Every subscription's status, its transaction and renewal info verified.
  const statuses = await client.getAllSubscriptionStatuses(input.transactionIds[0]);
  const groups = [];
  for (const group of statuses.data) {
    for (const last of group.lastTransactions) {
      groups.push({
        group: group.subscriptionGroupIdentifier, status: last.status,
        originalTransactionId: last.originalTransactionId,
        transaction: await verifier.verifyAndDecodeTransaction(last.signedTransactionInfo),
        renewalInfo: await verifier.verifyAndDecodeRenewalInfo(last.signedRenewalInfo),
      });
    }
  }
  await client.finishTransaction(input.transactionIds[0]);
  const output = { results, environment: statuses.environment, groups };
  if (input.endpoints) output.endpoints = await endpoints(client, verifier, input.endpoints);
  process.stdout.write(JSON.stringify(output));
}

main().catch((error) => {
  console.error(error);
  process.exit(1);
});
