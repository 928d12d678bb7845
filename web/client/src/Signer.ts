import { cbc } from "@noble/ciphers/aes.js";
import { sha256 } from "@noble/hashes/sha2.js";

const utf8 = (text: string) => new TextEncoder().encode(text);

// In steps, because a call takes only so many arguments.
function base64(bytes: Uint8Array): string {
  let text = "";
  for (let i = 0; i < bytes.length; i += 4096) text += String.fromCharCode(...bytes.subarray(i, i + 4096));
  return btoa(text);
}

function joined(...parts: Uint8Array[]): Uint8Array {
  const bytes = new Uint8Array(parts.reduce((size, part) => size + part.length, 0));
  let at = 0;
  for (const part of parts) {
    bytes.set(part, at);
    at += part.length;
  }
  return bytes;
}

// RFC 2104, for keys of up to 64 bytes.
function hmac(key: Uint8Array, message: Uint8Array): Uint8Array {
  const padded = (pad: number) => Uint8Array.from({ length: 64 }, (_, i) => (key[i] ?? 0) ^ pad);
  return sha256(joined(padded(0x5c), sha256(joined(padded(0x36), message))));
}

// Node.js 18 has it in a module only. The name is no literal, so that a bundler for browsers does not look for it.
async function randomBytes(size: number): Promise<Uint8Array> {
  const source: Crypto = globalThis.crypto ?? (await import(["node", "crypto"].join(":"))).webcrypto;
  return source.getRandomValues(new Uint8Array(size));
}

/** Signs and encrypts for one user. Keeps the key that one salt gives, which opens nothing but this device. */
export class Signer {
  readonly user: string;
  readonly #salt: string;
  readonly #key: Uint8Array;

  constructor(user: string, password: string, salt: Uint8Array) {
    this.user = user;
    this.#salt = base64(salt);
    this.#key = sha256(joined(salt, utf8(password)));
  }

  static async create(user: string, password: string): Promise<Signer> {
    return new Signer(user, password, await randomBytes(16));
  }

  /** The `Authorization` of a GET of `uri`, or of a POST of `body` to it. */
  authorization(uri: string, body?: string, encrypted = false, now = Date.now()): string {
    const data = body === undefined ? uri : `${uri}.${body}`;
    const signature = base64(hmac(this.#key, utf8(`${this.user}.${this.#salt}.${now}.${data}`)));
    const scheme = encrypted ? "HMAC_SHA256_AES256" : "HMAC_SHA256";
    return `${scheme} ${base64(utf8(this.user))}.${this.#salt}.${now}.${signature}`;
  }

  async encrypt(json: string, iv?: Uint8Array): Promise<string> {
    const first = iv ?? (await randomBytes(16));
    return base64(joined(first, cbc(this.#key, first).encrypt(utf8(json))));
  }
}
