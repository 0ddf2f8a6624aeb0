// The broker login: the user's own credentials, asked for only when wanted,
// kept in sessionStorage (gone with the tab), passed to the broker through
// the relay unchanged. Nothing of it is built into the page.
import type { Login } from '../link';
import { el } from './dom';

export class LoginView {
  readonly root: HTMLElement;

  constructor(login: Login | null, apply: (l: Login | null) => void) {
    const user = el('input', { type: 'text', id: 'login-user', autocomplete: 'username', value: login?.username ?? '' });
    const pass = el('input', { type: 'password', id: 'login-pass', autocomplete: 'current-password' });
    const form = el('form', { class: 'login' },
      el('label', {}, 'User ', user), el('label', {}, 'Password ', pass),
      el('button', { type: 'submit' }, 'Connect'));
    form.addEventListener('submit', (e) => {
      e.preventDefault();
      apply(user.value ? { username: user.value, password: pass.value } : null);
      pass.value = '';
    });
    this.root = el('details', { class: 'login-box' }, el('summary', {}, 'Broker login'), form);
  }
}
