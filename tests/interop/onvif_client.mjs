// What a client library of ONVIF makes of a device, as JSON: node onvif_client.mjs PORT USER PASSWORD
import { createRequire } from 'node:module';
import { promisify } from 'node:util';

const { Cam } = createRequire(process.env.INET_NPM + '/')('onvif');
const [port, username, password] = process.argv.slice(2);
const cam = new Cam({ hostname: '127.0.0.1', port, username, password, autoconnect: false, timeout: 20000 });
const call = (name, ...rest) => promisify(cam[name].bind(cam))(...rest);
const failure = (promise) => promise.then(() => '', (error) => error.message);
const profileToken = 'live', uris = {};

await call('connect');
for (const protocol of ['RTSP', 'UDP', 'TCP', 'HTTP'])
  uris[protocol] = (await call('getStreamUri', { protocol, profileToken })).uri;
console.log(JSON.stringify({
  media: (await call('getCapabilities')).media.XAddr,
  model: (await call('getDeviceInformation')).model,
  scopes: (await call('getScopes')).map((each) => each.scopeItem),
  links: (await call('getNetworkInterfaces')) !== undefined,
  skew: Math.abs(await call('getSystemDateAndTime') - Date.now()),
  profiles: cam.profiles.map((each) => [each.$.token, each.videoEncoderConfiguration?.encoding,
    each.videoEncoderConfiguration?.resolution.width, each.audioEncoderConfiguration?.encoding]),
  sources: cam.videoSources.map((each) => each.$.token),
  uris,
  snapshot: (await call('getSnapshotUri', { profileToken })).uri,
  sizes: (await call('getVideoEncoderConfigurationOptions', { profileToken })).H264.resolutionsAvailable,
  refused: await failure(call('getNTP')),
  unknown: await failure(call('getStreamUri', { protocol: 'RTSP', profileToken: 'nobody' })),
}));
