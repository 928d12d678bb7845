// Against what OpenSSL's command line made; the device's own tests read the same file.

import assert from "node:assert/strict";
import { readFileSync } from "node:fs";
import { test } from "node:test";
import { load } from "./load.mjs";

const { Signer } = await load("Signer");
const { signatures, ciphers } = JSON.parse(readFileSync(new URL("../../../tests/vectors/signatures.json", import.meta.url)));
const signerOf = ({ user = "", password, salt }) => new Signer(user, password, Buffer.from(salt, "base64"));

for (const vector of signatures) {
  test(`signature: ${vector.name}`, () => {
    const { user, salt, timestamp, method, uri, body, signature } = vector;
    const authorization = signerOf(vector).authorization(uri, method === "POST" ? body : undefined, false, timestamp);
    const name = Buffer.from(user).toString("base64");
    assert.equal(authorization, `HMAC_SHA256 ${name}.${salt}.${timestamp}.${signature}`);
  });
}

for (const vector of ciphers) {
  test(`cipher: ${vector.name}`, async () => {
    assert.equal(await signerOf(vector).encrypt(vector.json, Buffer.from(vector.iv, "hex")), vector.encrypted);
  });
}
