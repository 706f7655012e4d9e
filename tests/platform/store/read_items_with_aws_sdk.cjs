// Reads back every item of one session from the six record tables with the AWS JavaScript SDK and
// prints, per table, each item's attributes as {name: [type, value]} (B values in base64), so the
// C++ test sees what a real client sees. Usage: node read_items_with_aws_sdk.cjs ENDPOINT SESSION
const { DynamoDBClient, QueryCommand } = require('@aws-sdk/client-dynamodb');

const [endpoint, session] = process.argv.slice(2);
const client = new DynamoDBClient({
  endpoint,
  region: 'us-east-1',
  credentials: { accessKeyId: 'omra-local', secretAccessKey: 'omra-local' },
});
const tables = ['MapData-ImageFeatures', 'MapData-SceneUnderstanding', 'MapData-DetectedPlanes',
  'MapData-CameraPath', 'MapData-PointCloud', 'Transformations'];

function describe(value) {
  const [type] = Object.keys(value);
  const v = value[type];
  if (type === 'B') return [type, Buffer.from(v).toString('base64')];
  if (type === 'M') return [type, Object.fromEntries(Object.entries(v).map(([k, x]) => [k, describe(x)]))];
  return [type, v];
}

(async () => {
  const out = {};
  for (const table of tables) {
    const answer = await client.send(new QueryCommand({
      TableName: table,
      KeyConditionExpression: 'SessionId = :s',
      ExpressionAttributeValues: { ':s': { S: session } },
      ConsistentRead: true,
    }));
    out[table] = answer.Items.map((item) =>
      Object.fromEntries(Object.entries(item).map(([k, v]) => [k, describe(v)])));
  }
  process.stdout.write(JSON.stringify(out));
})().catch((e) => {
  process.stderr.write(String(e && e.stack || e));
  process.exit(1);
});
