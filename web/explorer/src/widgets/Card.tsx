import type { ComponentChildren } from "preact";

export function Card({
  title,
  children,
  tools,
}: {
  title: string;
  children: ComponentChildren;
  tools?: ComponentChildren;
}) {
  return (
    <section class="card tile" aria-label={title}>
      <header class="split">
        <h2>{title}</h2>
        {tools}
      </header>
      {children}
    </section>
  );
}
