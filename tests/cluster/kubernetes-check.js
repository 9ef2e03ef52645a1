#!/usr/bin/env node
// The Kubernetes recipe, examples/kubernetes/webget-job.yaml, checked without a cluster: every document against
// the Kubernetes object schema (types, required fields, enumerations; the npm package kubernetes-models holds it
// compiled), no field that the schema does not name, and what webget's Indexed Job needs from the documents
// together. Run by CTest as cluster.kubernetes; by hand: node tests/cluster/kubernetes-check.js FILE.yaml
'use strict';
const fs = require('fs');
const {execFileSync} = require('child_process');

// scripts/install-deps.sh installs the packages into npm's global folder.
const root = execFileSync('npm', ['root', '-g'], {encoding: 'utf8'}).trim();
const need = (name) => require(require.resolve(name, {paths: [root]}));
const YAML = need('yaml');
const {PersistentVolumeClaim, ConfigMap} = need('kubernetes-models/v1');
const {Job} = need('kubernetes-models/batch/v1');
const models = {'v1/PersistentVolumeClaim': PersistentVolumeClaim, 'v1/ConfigMap': ConfigMap, 'batch/v1/Job': Job};

// The schema lets objects carry fields it does not name (the API server refuses them only when asked to be
// strict), but its validators read every field they name: a field that none of them read is unknown.
function schemaProblems(doc) {
  const Model = models[`${doc.apiVersion}/${doc.kind}`];
  if (!Model) return [`${doc.apiVersion}/${doc.kind}: not a kind this recipe uses`];
  const unread = new Map(); // object -> [its path, the keys not read yet]
  const watch = (value, path) => {
    if (value === null || typeof value !== 'object') return value;
    if (!unread.has(value)) unread.set(value, [path, new Set(Object.keys(value))]);
    return new Proxy(value, {
      get(target, key) {
        if (typeof key !== 'string' || !Object.hasOwn(target, key)) return target[key];
        unread.get(target)[1].delete(key);
        return watch(target[key], `${path}/${key}`);
      },
    });
  };
  const found = [];
  try {
    Model.prototype.validate.call(watch(doc, ''));
  } catch (e) {
    found.push(`${doc.kind}: ${e.message}`);
  }
  for (const [path, keys] of unread.values()) for (const key of keys) found.push(`${doc.kind}: ${path}/${key}: unknown field`);
  return found;
}

// The documents together: an Indexed Job whose pods share out the work by --shard I/N with N = completions,
// whose mounts name its volumes, whose volumes name the claim (storage that many nodes can mount) and the
// ConfigMap defined here, and whose -i names a file of that ConfigMap.
function recipeProblems(docs) {
  const found = [];
  const expect = (ok, what) => ok || found.push(what);
  const byKind = (kind) => docs.filter((d) => d.kind === kind);
  const [job, claim, config] = ['Job', 'PersistentVolumeClaim', 'ConfigMap'].map((k) => byKind(k)[0]);
  if (!job || !claim || !config || docs.length !== 3) return ['not one Job, one PersistentVolumeClaim and one ConfigMap'];
  const pod = job.spec.template.spec;
  const script = pod.containers.flatMap((c) => [...(c.command || []), ...(c.args || [])]).join(' ');
  const shard = /--shard "\$JOB_COMPLETION_INDEX\/(\d+)"/.exec(script);
  expect(job.spec.completionMode === 'Indexed', 'the Job is not Indexed');
  expect(shard && Number(shard[1]) === job.spec.completions, 'the N of --shard is not the number of completions');
  expect(['OnFailure', 'Never'].includes(pod.restartPolicy), 'a Job pod restarts OnFailure or Never');
  expect(claim.spec?.accessModes?.includes('ReadWriteMany') && claim.spec.resources?.requests?.storage,
    'the claim is not storage that many nodes can mount');
  const volumes = new Map((pod.volumes || []).map((v) => [v.name, v]));
  const mounts = pod.containers.flatMap((c) => c.volumeMounts || []);
  for (const m of mounts) expect(volumes.has(m.name), `the mount ${m.name} names no volume`);
  for (const v of volumes.values()) {
    if (v.persistentVolumeClaim) expect(v.persistentVolumeClaim.claimName === claim.metadata?.name, `${v.name}: no such claim`);
    if (v.configMap) expect(v.configMap.name === config.metadata?.name, `${v.name}: no such ConfigMap`);
  }
  const input = /-i (\S+)/.exec(script);
  const from = input && mounts.find((m) => volumes.get(m.name)?.configMap && input[1].startsWith(`${m.mountPath}/`));
  expect(from && Object.hasOwn(config.data || {}, input[1].slice(from.mountPath.length + 1)), '-i names no file of the ConfigMap');
  return found;
}

const parsed = YAML.parseAllDocuments(fs.readFileSync(process.argv[2], 'utf8'));
let problems = parsed.flatMap((d) => d.errors.map((e) => e.message));
const docs = problems.length ? [] : parsed.map((d) => d.toJS());
problems = problems.concat(docs.flatMap(schemaProblems));
if (!problems.length) problems = recipeProblems(docs);
// The check itself: a misspelt field must not pass.
const misspelt = {apiVersion: 'batch/v1', kind: 'Job', spec: {completionsMode: 'Indexed', template: {spec: {containers: []}}}};
if (!schemaProblems(misspelt).includes('Job: /spec/completionsMode: unknown field')) {
  problems.push('the check lets a misspelt field through');
}
for (const p of problems) console.log(`FAIL ${p}`);
if (!problems.length) console.log(`ok   ${docs.map((d) => d.kind).join(', ')}: the schema, no unknown field, an Indexed Job`);
process.exit(problems.length ? 1 : 0);
