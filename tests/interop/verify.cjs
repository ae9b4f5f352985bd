// Reads {bundleId, trustedRoots: [base64 DER], items: [{jws, environment, kind?, trustedRoots?}]} from
// the file named on the command line and prints, for each item, what Apple's
// SignedDataVerifier makes of it (a transaction, or with kind "renewalInfo" a renewal info):
// {ok: true, decoded} or {ok: false, status, message}.
'use strict';
const fs = require('fs');
const { SignedDataVerifier, Environment } = require('@apple/app-store-server-library');

async function main() {
  const input = JSON.parse(fs.readFileSync(process.argv[2], 'utf8'));
  const results = [];
  for (const item of input.items) {
    const roots = (item.trustedRoots ?? input.trustedRoots).map((b64) => Buffer.from(b64, 'base64'));
    const environment = item.environment === 'Sandbox' ? Environment.SANDBOX : Environment.XCODE;
    const verifier = new SignedDataVerifier(roots, false, environment, input.bundleId);
    try {
      const decoded = item.kind === 'renewalInfo'
        ? await verifier.verifyAndDecodeRenewalInfo(item.jws)
        : await verifier.verifyAndDecodeTransaction(item.jws);
      results.push({ ok: true, decoded });
    } catch (error) {
      results.push({ ok: false, status: error.status ?? null, message: String(error) });
    }
  }
  process.stdout.write(JSON.stringify(results));
}

main().catch((error) => {
  console.error(error);
  process.exit(1);
});
