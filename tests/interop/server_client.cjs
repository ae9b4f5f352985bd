// Calls the local App Store Server API with Apple's AppStoreServerAPIClient (its base URL set
// to the local server's) and checks what it answers with SignedDataVerifier. Reads
// {url, keyFile, keyId, issuerId, bundleId, trustedRoot (base64 DER), transactionIds} from the
// file named on the command line; prints {results, environment, groups}: per id, {ok, decoded} or
// {ok: false, httpStatusCode, apiError, errorMessage}; then, from Get All Subscription
// Statuses for the first id, each subscription with its transaction and renewal info decoded;
// and finishes the first id with Finish Transaction.
'use strict';
const fs = require('fs');
const {
  AppStoreServerAPIClient, SignedDataVerifier, Environment,
} = require('@apple/app-store-server-library');

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
      results.push({ ok: false, httpStatusCode: error.httpStatusCode ?? null,
                     apiError: error.apiError ?? null, errorMessage: error.errorMessage ?? String(error) });
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
  process.stdout.write(JSON.stringify({ results, environment: statuses.environment, groups }));
}

main().catch((error) => {
  console.error(error);
  process.exit(1);
});
