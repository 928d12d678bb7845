/** Offers `content` to the reader as a file. */
export function saveAs(name: string, content: BlobPart, type: string): void {
  const url = URL.createObjectURL(new Blob([content], { type }));
  const link = document.createElement("a");
  link.href = url;
  link.download = name;
  link.click();
  // The browser reads the content after the click has returned.
  setTimeout(() => URL.revokeObjectURL(url), 10_000);
}

export function bytesOf(base64: string): Uint8Array<ArrayBuffer> {
  return Uint8Array.from(atob(base64), (character) => character.charCodeAt(0));
}

export function toBase64(bytes: Uint8Array): string {
  let text = "";
  // In pieces: a call takes only so many arguments.
  for (let at = 0; at < bytes.length; at += 8192) text += String.fromCharCode(...bytes.subarray(at, at + 8192));
  return btoa(text);
}

/** Pages from plain HTTP have no clipboard of their own; then the old way through a selection. */
export async function copy(text: string): Promise<void> {
  if (navigator.clipboard) return navigator.clipboard.writeText(text);
  const area = document.createElement("textarea");
  area.value = text;
  document.body.append(area);
  area.select();
  document.execCommand("copy");
  area.remove();
}
