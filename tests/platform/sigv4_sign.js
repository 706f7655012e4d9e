// Signs one request with the AWS JavaScript SDK's SigV4 signer, as an independent reference for
// the libcurl signing the kit uses. Usage: node sigv4_sign.js PEERS_DIR < request.json
// request.json: {method, host, path, headers: {name: value}, body, region, service, accessKeyId,
//                secretAccessKey, sessionToken?, amzDate: "YYYYMMDDTHHMMSSZ"}
// Prints the Authorization header value.
const path = require('path');
const peers = path.join(process.argv[2], 'node_modules');
const { SignatureV4 } = require(path.join(peers, '@smithy/signature-v4'));
const { Sha256 } = require(path.join(peers, '@aws-crypto/sha256-js'));

let input = '';
process.stdin.on('data', (d) => (input += d));
process.stdin.on('end', async () => {
  const r = JSON.parse(input);
  const d = r.amzDate;
  const signingDate = new Date(Date.UTC(+d.slice(0, 4), +d.slice(4, 6) - 1, +d.slice(6, 8),
                                        +d.slice(9, 11), +d.slice(11, 13), +d.slice(13, 15)));
  const credentials = { accessKeyId: r.accessKeyId, secretAccessKey: r.secretAccessKey };
  if (r.sessionToken) credentials.sessionToken = r.sessionToken;
  const signer = new SignatureV4({ credentials, region: r.region, service: r.service,
                                   sha256: Sha256, applyChecksum: false });
  const headers = Object.assign({ host: r.host }, r.headers);
  const signed = await signer.sign(
      { method: r.method, protocol: 'http:', hostname: r.host, path: r.path, query: {},
        headers, body: r.body },
      { signingDate });
  process.stdout.write(signed.headers.authorization);
});
