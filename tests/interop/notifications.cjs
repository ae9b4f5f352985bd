// Apple's client and verifier over the local server's notifications. Reads {url, keyFile,
// keyId, issuerId, bundleId, trustedRoot (base64 DER), startDate, endDate} from the file named
// on the command line. Requests a test notification and reads its status until its first
// attempt is there (at most 50 tries, 100 ms apart); reads the notification history of
// [startDate, endDate) page by page (at most 20 pages) and then only the failures. Every
// signed payload is verified with SignedDataVerifier. Prints {test, history, failures}, each
// notification as {notificationType, subtype, notificationUUID, status, attempts}.
'use strict';
const fs = require('fs');
const { AppStoreServerAPIClient, SignedDataVerifier, Environment } = require('@apple/app-store-server-library');

async function main() {
  const input = JSON.parse(fs.readFileSync(process.argv[2], 'utf8'));
  const client = new AppStoreServerAPIClient(fs.readFileSync(input.keyFile, 'utf8'), input.keyId,
                                             input.issuerId, input.bundleId, Environment.SANDBOX);
  client.urlBase = input.url;
  const verifier = new SignedDataVerifier([Buffer.from(input.trustedRoot, 'base64')], false,
                                          Environment.SANDBOX, input.bundleId);
  const describe = async (signedPayload, attempts) => {
    const decoded = await verifier.verifyAndDecodeNotification(signedPayload);
    const described = { notificationType: decoded.notificationType, subtype: decoded.subtype ?? '',
                        notificationUUID: decoded.notificationUUID, status: decoded.data?.status ?? 0,
                        attempts: attempts.map((a) => a.sendAttemptResult) };
    if (decoded.data?.signedTransactionInfo) {
      described.transactionId = (await verifier.verifyAndDecodeTransaction(decoded.data.signedTransactionInfo)).transactionId;
    }
    if (decoded.data?.signedRenewalInfo) await verifier.verifyAndDecodeRenewalInfo(decoded.data.signedRenewalInfo);
    return described;
  };

  const { testNotificationToken } = await client.requestTestNotification();
  let test = null;
  for (let i = 0; i < 50 && !test; ++i) {
    try {
      const status = await client.getTestNotificationStatus(testNotificationToken);
      test = await describe(status.signedPayload, status.sendAttempts);
    } catch (error) {
      if (error.apiError !== 4040008) throw error;
      await new Promise((resolve) => setTimeout(resolve, 100));
    }
  }

  const readHistory = async (request) => {
    const found = [];
    let token = null;
    for (let page = 0; page < 20; ++page) {
      const answer = await client.getNotificationHistory(token, request);
      for (const item of answer.notificationHistory) found.push(await describe(item.signedPayload, item.sendAttempts));
      if (!answer.hasMore) return found;
      token = answer.paginationToken;
    }
    throw new Error('more than 20 pages of notification history');
  };
  const range = { startDate: input.startDate, endDate: input.endDate };
  const history = await readHistory(range);
  const failures = await readHistory({ ...range, onlyFailures: true });
  process.stdout.write(JSON.stringify({ test, history, failures }));
}

main().catch((error) => {
  console.error(error);
  process.exit(1);
});
