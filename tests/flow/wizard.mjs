// The set-up wizard as its pages drive it, through the interface.
import assert from "node:assert/strict";
import { signIn } from "./client.mjs";

// A signed-in account in its wizard.
export class Wizard {
  static async start(server, user) {
    const wizard = new Wizard();
    wizard.server = server;
    wizard.user = user;
    wizard.client = await signIn(server, user);
    return wizard;
  }
  get password() {
    return this.server.passwords[this.user];
  }
  code(key = this.key) {
    return this.server.code(key);
  }
  async qr(label = "label") {
    const answer = await this.client.post("/api/otp/qr", { password: this.password, account_name: label });
    this.key = answer.json.key ?? this.key;
    return answer;
  }
  // The new key is the caller's to keep: the old one holds until the new one is confirmed.
  renew(code = this.code(), label = "label") {
    return this.client.post("/api/otp/renew", { password: this.password, code, account_name: label });
  }
  label(label, key = this.key) {
    return this.client.post("/api/otp/label", { password: this.password, key, account_name: label });
  }
  confirm(code = this.code()) {
    return this.client.post("/api/otp/confirm", { password: this.password, code });
  }
  mail(mail, code) {
    return this.client.post("/api/otp/mail", { password: this.password, mail, ...(code ? { code } : {}) });
  }
  disable(code = this.code()) {
    return this.client.post("/api/otp/disable", { password: this.password, code });
  }
  async status() {
    return (await this.client.get("/api/otp/status")).json;
  }
}

export async function enrol(server, user) {
  const wizard = await Wizard.start(server, user);
  await wizard.qr();
  const answer = await wizard.confirm();
  assert.equal(answer.json.auth_ok, true, answer.text);
  return wizard;
}

// From the password to the session, with the next code.
export async function signInWithCode(server, user, key) {
  const client = await signIn(server, user);
  server.advance(30);
  const answer = await client.post("/api/signin/code", { code: server.code(key) });
  assert.equal(answer.status, 200, answer.text);
  return client;
}
