import assert from "node:assert/strict";
import { test } from "node:test";
import { load } from "./load.mjs";

const { formatJson, parseJson } = await load("json");

test("integers keep every digit in both directions, and nothing else changes", () => {
  const rows = [
    ["9007199254740991", 9007199254740991],
    ["9007199254740993", 9007199254740993n],
    ["-9223372036854775808", -9223372036854775808n],
    ['{"a":[18446744073709551615,7]}', { a: [18446744073709551615n, 7] }],
    ['["9223372036854775807","\\\\\\"9223372036854775807"]', ["9223372036854775807", '\\"9223372036854775807']],
    ["1795235705728410", 1795235705728410],
  ];
  for (const [text, value] of rows) {
    assert.deepEqual(parseJson(text), value, text);
    assert.equal(formatJson(value), text);
  }
  // Not integers, though they have as many digits.
  for (const text of ["0.12345678901234567", "12345678901234567e2", "98765432109876543.5", "1e-12345678901234567"]) {
    assert.equal(parseJson(text), Number(text));
  }
  assert.deepEqual(parseJson('{"type":"double","value":100000000000000000}'), { type: "double", value: 1e17 });
  for (const text of ["", "[90071992547409930,]", '{"a":00090071992547409930}']) assert.throws(() => parseJson(text), SyntaxError);
});
